#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/daemon_fixture.h"

namespace {

using namespace std::chrono_literals;
using strings = std::vector<std::string>;

const strings walk_up = {"down",    "waiting to start", "starting", "starting up commands",
                         "testing", "tested",           "up"};
// A conn made by a reload never publishes its first "down".
const strings walk_up_anew(walk_up.begin() + 1, walk_up.end());
const strings walk_down = {"waiting to stop", "stopping up commands", "stopping", "down"};

const char start_prefix[] = "Message from (NULL) to ";
const char start_suffix[] = " of type start";

strings joined(std::initializer_list<strings> parts) {
    strings out;
    for (const strings &part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

// The states among "name state" events that belong to name.
strings events_of(const strings &events, const std::string &name) {
    strings out;
    const std::string prefix = name + " ";
    for (const std::string &event : events) {
        if (event.rfind(prefix, 0) == 0)
            out.push_back(event.substr(prefix.size()));
    }
    return out;
}

bool contains(const strings &list, const std::string &item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

// Where item first stands in list; list.size() when it does not.
size_t index_of(const strings &list, const std::string &item) {
    return static_cast<size_t>(std::find(list.begin(), list.end(), item) - list.begin());
}

// The conns on which every test here is built: healthy while ROOT/NAME.ok
// exists, with an up command that runs for as long as they are up.
class ConfigReload : public daemon_fixture {
  protected:
    std::string conn(const std::string &name, const std::string &extra = "") const {
        return "conn " + name + "\n\tstart /bin/true\n\tup sleep 60\n\ttest test -e " +
               root_.file(name + ".ok") + "\n\ttestdelay 0\n\ttestperiod 1\n" + extra;
    }
    void healthy(const std::string &name) const { root_.write_file(name + ".ok", ""); }
    void sick(const std::string &name) const { std::remove(root_.file(name + ".ok").c_str()); }

    bool all_up(std::initializer_list<const char *> names) {
        for (const char *name : names) {
            if (!wait_status(name, "up"))
                return false;
        }
        return true;
    }

    // The messages a reload handled inside its signal's callback: between
    // the last "SIGHUP - Reloading Config" and the "Finished Reloading
    // Config" after it, which the loop cannot interleave with anything.
    strings sighup_window() const {
        strings logged = sandbox_.log_messages();
        auto sighup = std::find(logged.rbegin(), logged.rend(), "SIGHUP - Reloading Config");
        if (sighup == logged.rend())
            return {"(no SIGHUP logged)"};
        auto from = sighup.base();
        auto to = std::find(from, logged.end(), "Finished Reloading Config");
        if (to == logged.end())
            return {"(not finished in the callback)"};
        return strings(from, to);
    }

    // The conns the last merge sent a start, in order: the run of start
    // messages without a sender logged right before the last "Finished
    // Reloading Config" (needs instancelog +debugmessages).
    strings merge_started() const {
        strings logged = sandbox_.log_messages();
        auto finished = std::find(logged.rbegin(), logged.rend(), "Finished Reloading Config");
        strings names;
        for (auto it = finished == logged.rend() ? logged.rend() : finished + 1;
             it != logged.rend(); ++it) {
            const std::string &m = *it;
            const size_t p = sizeof start_prefix - 1, s = sizeof start_suffix - 1;
            if (m.size() <= p + s || m.compare(0, p, start_prefix) != 0 ||
                m.compare(m.size() - s, s, start_suffix) != 0)
                break;
            names.insert(names.begin(), m.substr(p, m.size() - p - s));
        }
        return names;
    }

    // True once the journal from mark holds event; the store journals what
    // the daemon sent a moment after it was logged.
    bool wait_event(size_t mark, const std::string &event) {
        return wait_until([&] { return contains(status_events_from(mark), event); }, 10s);
    }

    // True when pred stays false for the whole of period: the bounded wait
    // after which something that must not happen is taken not to.
    static bool stays_false(const std::function<bool()> &pred, std::chrono::milliseconds period) {
        return !wait_until(pred, period, 20ms);
    }

    // How many descriptors the daemon holds: the fewest seen over period,
    // so that a test or start command in flight (two pipes each) is not
    // counted against it.
    size_t daemon_fds(std::chrono::milliseconds period) {
        const std::string dir = "/proc/" + std::to_string(daemon_->pid()) + "/fd";
        size_t fewest = SIZE_MAX;
        wait_until(
            [&] {
                std::error_code error;
                size_t n = 0;
                for (std::filesystem::directory_iterator it(dir, error), end; !error && it != end;
                     it.increment(error))
                    n++;
                if (!error)
                    fewest = std::min(fewest, n);
                return false;
            },
            period, 5ms);
        return fewest;
    }
};

TEST_F(ConfigReload, AnUnchangedFileStopsNothingAndStartsTheConnsWithoutChildren) {
    for (const char *name : {"A", "P", "B"})
        healthy(name);
    const std::string config = "global\n\tinstancelog +debugmessages\n" +
                               conn("A", "\tparent P\n") + conn("P") + conn("B");
    start(config);
    ASSERT_TRUE(all_up({"P", "A", "B"})) << trace();
    const size_t journal = journal_mark();
    const size_t log = log_mark();

    ASSERT_TRUE(reload(config)) << trace();

    // P has a child and is left to it; up conns ignore the start.
    EXPECT_EQ(sighup_window(), (strings{"Message from (NULL) to A of type start",
                                        "Message from (NULL) to B of type start"}))
        << trace();
    EXPECT_TRUE(stays_false([&] { return !status_events_from(journal).empty(); }, 1500ms))
        << trace();
    // Nor did any message follow: a stop would have been logged.
    EXPECT_EQ(log_from(log).size(), 4u) << trace();
    EXPECT_EQ(log_count("Failed To Load Config"), 0);
}

TEST_F(ConfigReload, TheMergeRearmsAKeepaliveThatWasStopped) {
    healthy("K");
    // K's only child is never defined, so it is deaf: nothing but the
    // keepalive ever starts K.
    const std::string config =
        "global\n\tkeepalive 1\n\tinstancelog +debugmessages\n" + conn("K", "\tchild ghost\n");
    const std::string repair = "Keepalive found incorrectly down conn K - starting now";
    start(config);
    ASSERT_TRUE(wait_status("K", "up")) << trace();
    ASSERT_GE(log_count(repair), 1);

    command("tovrin,x,stop_keepalive");
    ASSERT_TRUE(sandbox_.wait_log("external stop_keepalive command received", 10s)) << trace();
    command("K,cli,stop");
    ASSERT_TRUE(wait_status("K", "down")) << trace();
    const int repairs = log_count(repair);
    ASSERT_TRUE(stays_false([&] { return log_count(repair) > repairs; }, 2500ms)) << trace();

    ASSERT_TRUE(reload(config)) << trace();
    EXPECT_EQ(merge_started(), strings{"ghost"}) << trace();
    EXPECT_TRUE(wait_log_count(repair, repairs + 1, 5s)) << trace();
    EXPECT_TRUE(wait_status("K", "up")) << trace();
}

TEST_F(ConfigReload, RemovedConnsAreStoppedFreedAndTheirStatusDeleted) {
    for (const char *name : {"A", "R", "D"})
        healthy(name);
    start(conn("A") + conn("R") + conn("D"));
    ASSERT_TRUE(all_up({"A", "R", "D"})) << trace();
    command("D,cli,stop");
    ASSERT_TRUE(wait_status("D", "down")) << trace();

    // Already down: merged inside the signal's callback, the stop queued for
    // it dropped with it.
    size_t journal = journal_mark();
    ASSERT_TRUE(reload(conn("A") + conn("R"))) << trace();
    EXPECT_EQ(sighup_window(), strings{"removing old conn: D"}) << trace();
    EXPECT_TRUE(wait_event(journal, "D deleted")) << trace();
    EXPECT_EQ(status_events_from(journal), strings{"D deleted"}) << trace();
    EXPECT_EQ(store_->get("tovrin.D.status"), std::nullopt);

    // Up: the whole way down first, then removed.
    journal = journal_mark();
    const size_t log = log_mark();
    ASSERT_TRUE(reload(conn("A"))) << trace();
    ASSERT_TRUE(wait_event(journal, "R deleted")) << trace();
    strings events = status_events_from(journal);
    EXPECT_EQ(events_of(events, "R"), joined({walk_down, {"deleted"}})) << trace();
    EXPECT_TRUE(events_of(events, "A").empty()) << trace();
    strings logged = log_from(log);
    EXPECT_LT(index_of(logged, "removing old conn: R"),
              index_of(logged, "Finished Reloading Config"))
        << trace();
    EXPECT_EQ(store_->get("tovrin.R.status"), std::nullopt);
    EXPECT_EQ(store_->get("tovrin.A.status"), "up");
    EXPECT_EQ(published("A"), walk_up);
}

TEST_F(ConfigReload, ChangedConnsAreReplacedAndKeptOnesWithChildrenLeftRunning) {
    for (const char *name : {"P", "C", "X", "Y", "Z"})
        healthy(name);
    auto config = [&](const std::string &period) {
        return "global\n\tinstancelog +debugmessages\n" + conn("P") + conn("C", "\tparent P\n") +
               conn("X", "\ttestperiod " + period + "\n") + conn("Y", "\tparent X\n") +
               conn("Z", "\ttestperiod " + period + "\n");
    };
    start(config("1"));
    ASSERT_TRUE(all_up({"P", "C", "X", "Y", "Z"})) << trace();
    command("Z,cli,stop");
    ASSERT_TRUE(wait_status("Z", "down")) << trace();
    const size_t journal = journal_mark();

    ASSERT_TRUE(reload(config("2"))) << trace();
    EXPECT_EQ(log_count("conn [Z] has changed, but still remained in DOWN state"), 1) << trace();
    EXPECT_EQ(sandbox_.log_priority("conn [Z] has changed, but still remained in DOWN state"),
              "INFO");
    EXPECT_EQ(log_count("removing changed conn: X"), 1) << trace();
    EXPECT_EQ(log_count("removing changed conn: Z"), 1) << trace();
    // Kept conns first, then the replacements in the new file's order; X
    // was running, so it is started although it has a child.
    EXPECT_EQ(merge_started(), (strings{"C", "Y", "X", "Z"})) << trace();
    ASSERT_TRUE(all_up({"X", "Y", "Z"})) << trace();

    strings events = status_events_from(journal);
    // X takes its child down before it goes.
    EXPECT_LT(index_of(events, "Y down"), index_of(events, "X stopping up commands")) << trace();
    EXPECT_EQ(events_of(events, "X"), joined({walk_down, {"deleted"}, walk_up_anew})) << trace();
    EXPECT_EQ(events_of(events, "Y"), joined({walk_down, walk_up_anew})) << trace();
    EXPECT_EQ(events_of(events, "Z"), joined({{"deleted"}, walk_up_anew})) << trace();
    EXPECT_TRUE(events_of(events, "P").empty()) << trace();
    EXPECT_TRUE(events_of(events, "C").empty()) << trace();
}

TEST_F(ConfigReload, RestartSettingsAreNotComparedButTheTestTimeoutIs) {
    healthy("M");
    healthy("T");
    auto config = [&](const std::string &m_settings, const std::string &t_timeout) {
        return "global\n\tdefaultlog none\n" + conn("M", m_settings) +
               conn("T", "\ttesttimeout " + t_timeout + "\n");
    };
    start(config("\tmaxrestarts 3\n\trestartdelayfactor 100\n", "5"));
    ASSERT_TRUE(all_up({"M", "T"})) << trace();
    const size_t journal = journal_mark();
    const size_t log = log_mark();

    ASSERT_TRUE(reload(config("\tmaxrestarts 7\n\trestartdelayfactor 2000\n", "6"))) << trace();
    ASSERT_TRUE(wait_status("T", "up")) << trace();
    strings events = status_events_from(journal);
    EXPECT_TRUE(events_of(events, "M").empty()) << trace();
    EXPECT_EQ(events_of(events, "T"), joined({walk_down, {"deleted"}, walk_up_anew})) << trace();
    // Nothing says why T changed.
    EXPECT_EQ(log_from(log), (strings{"SIGHUP - Reloading Config", "removing changed conn: T",
                                      "Finished Reloading Config"}))
        << trace();
}

TEST_F(ConfigReload, AFileDependencyChangesItsConnOnlyWhenItsContentDoes) {
    healthy("F");
    healthy("G");
    root_.write_file("dep.txt", "first\n");
    const std::string config =
        conn("F", "\tfile-dependency " + root_.file("dep.txt") + "\n") + conn("G");
    start(config);
    ASSERT_TRUE(all_up({"F", "G"})) << trace();

    size_t journal = journal_mark();
    root_.write_file("dep.txt", "first\n");
    ASSERT_TRUE(reload(config)) << trace();
    EXPECT_TRUE(sighup_window().empty()) << trace();
    EXPECT_TRUE(stays_false([&] { return !status_events_from(journal).empty(); }, 1000ms))
        << trace();

    journal = journal_mark();
    root_.write_file("dep.txt", "second\n");
    ASSERT_TRUE(reload(config)) << trace();
    ASSERT_TRUE(wait_status("F", "up")) << trace();
    strings events = status_events_from(journal);
    EXPECT_EQ(events_of(events, "F"), joined({walk_down, {"deleted"}, walk_up_anew})) << trace();
    EXPECT_TRUE(events_of(events, "G").empty()) << trace();
    EXPECT_EQ(log_count("removing changed conn: F"), 1) << trace();
}

TEST_F(ConfigReload, AReloadTimeoutStopsEverythingAndTheMergeStartsWhatRan) {
    for (const char *name : {"H", "K", "P", "C"})
        healthy(name);
    // H's stop command outlasts the reload timeout and ends only when its
    // own command timeout kills it.
    auto config = [&](const std::string &period) {
        return "global\n\tconfigreloadtimeout 2\n\tinstancelog +debugmessages\n" +
               conn("H", "\tstop sleep 30\n\tcommandtimeout 4\n\ttestperiod " + period + "\n") +
               conn("K") + conn("P") + conn("C", "\tparent P\n");
    };
    const std::string expired = "Unexpected timeout while reloading configuration.";
    const std::string stopping_all = "Stopping all connections to let config reload";
    start(config("1"));
    ASSERT_TRUE(all_up({"H", "K", "P", "C"})) << trace();
    const size_t journal = journal_mark();
    const size_t log = log_mark();
    const auto sent = std::chrono::steady_clock::now();

    ASSERT_TRUE(reload(config("2"))) << trace();
    EXPECT_GE(std::chrono::steady_clock::now() - sent, 3s);
    strings logged = log_from(log);
    EXPECT_EQ(sandbox_.log_priority(expired), "FATAL");
    EXPECT_EQ(sandbox_.log_priority(stopping_all), "FATAL");
    EXPECT_EQ(index_of(logged, expired) + 1, index_of(logged, stopping_all)) << trace();
    EXPECT_LT(index_of(logged, stopping_all), index_of(logged, "removing changed conn: H"))
        << trace();
    EXPECT_EQ(log_count("Finished Reloading Config"), 1);
    // Everything ran, so everything is started, P with its child too.
    EXPECT_EQ(merge_started(), (strings{"K", "P", "C", "H"})) << trace();
    ASSERT_TRUE(all_up({"H", "K", "P", "C"})) << trace();

    strings events = status_events_from(journal);
    for (const char *name : {"K", "P", "C"})
        EXPECT_EQ(events_of(events, name), joined({walk_down, walk_up_anew})) << name << trace();
    EXPECT_EQ(events_of(events, "H"), joined({walk_down, {"deleted"}, walk_up_anew})) << trace();
}

TEST_F(ConfigReload, ASecondSighupWhileWaitingWinsAndStartsStayDeferred) {
    for (const char *name : {"W", "V", "S", "N2", "N3"})
        healthy(name);
    // W's stop command waits for the test to open the gate.
    const std::string gate = root_.file("gate");
    auto config = [&](const std::string &period, const std::string &rest) {
        return "global\n\tinstancelog +debugmessages\n" +
               conn("W", "\tstop sh -c \"while [ ! -e " + gate + " ]; do sleep 0.02; done\"\n" +
                             "\ttestperiod " + period + "\n") +
               conn("S") + rest;
    };
    start(config("1", conn("V")));
    ASSERT_TRUE(all_up({"W", "S", "V"})) << trace();
    const size_t journal = journal_mark();

    reload_send(config("2", conn("N2")));
    ASSERT_TRUE(wait_status("W", "stopping")) << trace();
    ASSERT_TRUE(wait_status("V", "down")) << trace();
    // A start while the reload waits is only noted.
    command("S,cli,stop");
    ASSERT_TRUE(wait_status("S", "down")) << trace();
    command("S,cli,start");
    ASSERT_TRUE(sandbox_.wait_log("S: not handling start message during config reloading", 10s))
        << trace();

    reload_send(config("3", conn("V") + conn("N3")));
    ASSERT_TRUE(wait_log_count("SIGHUP - Reloading Config", 2)) << trace();
    EXPECT_EQ(log_count("Finished Reloading Config"), 0) << trace();
    EXPECT_EQ(store_->get("tovrin.S.status"), "down");
    root_.write_file("gate", "");
    ASSERT_TRUE(wait_log_count("Finished Reloading Config", 1)) << trace();
    ASSERT_TRUE(all_up({"W", "S", "V", "N3"})) << trace();

    EXPECT_EQ(log_count("Finished Reloading Config"), 1) << trace();
    EXPECT_EQ(log_count("removing changed conn: W"), 1) << trace();
    EXPECT_EQ(log_count("removing old conn: V"), 0) << trace();
    strings events = status_events_from(journal);
    EXPECT_EQ(events_of(events, "V"), joined({walk_down, walk_up_anew})) << trace();
    EXPECT_EQ(events_of(events, "W"), joined({walk_down, {"deleted"}, walk_up_anew})) << trace();
    EXPECT_EQ(events_of(events, "N3"), walk_up_anew) << trace();
    EXPECT_TRUE(published("N2").empty()) << trace();
    EXPECT_EQ(store_->get("tovrin.N2.status"), std::nullopt);
}

TEST_F(ConfigReload, AFileThatDoesNotParseChangesNothing) {
    healthy("A");
    healthy("B");
    const std::string config = conn("A") + conn("B");
    start(config);
    ASSERT_TRUE(all_up({"A", "B"})) << trace();
    const size_t journal = journal_mark();

    // A changed and B removed, but the file is refused whole.
    ASSERT_TRUE(reload(conn("A", "\ttestperiod 2\n\tfrobnicate 1\n"))) << trace();
    EXPECT_EQ(log_count("Failed To Load Config"), 1) << trace();
    EXPECT_EQ(sandbox_.log_priority("Unknown clause: frobnicate in connection A"), "FATAL");
    EXPECT_TRUE(stays_false([&] { return !status_events_from(journal).empty(); }, 1500ms))
        << trace();

    // The refused file left nothing behind to trip the next reload.
    ASSERT_TRUE(reload(config)) << trace();
    EXPECT_EQ(log_count("Finished Reloading Config"), 1) << trace();
    EXPECT_TRUE(sighup_window().empty()) << trace();
    EXPECT_TRUE(stays_false([&] { return !status_events_from(journal).empty(); }, 1000ms))
        << trace();
}

TEST_F(ConfigReload, TwoHundredReloadsWhileConnsFlapLeakNothing) {
    const int reloads = 200;
    const strings names = {"s1", "s2", "p", "c", "d", "r", "f1", "f2"};
    for (const std::string &name : names)
        healthy(name);
    // d changes at every reload and r comes and goes; p and c, s1 and s2 are
    // kept throughout; f1 and f2 flap as the test toggles their files.
    auto config = [&](bool first) {
        const std::string flapping = "\ttestdelay 1\n\ttestthreshold 0\n";
        return "global\n\tdefaultlog none\n" + conn("s1") + conn("s2") + conn("p") +
               conn("c", "\tparent p\n") +
               conn("d", first ? "\ttestperiod 1\n" : "\ttestperiod 2\n") +
               (first ? conn("r") : "") + conn("f1", flapping) + conn("f2", flapping);
    };
    start(config(true));
    ASSERT_TRUE(all_up({"s1", "s2", "p", "c", "d", "r", "f1", "f2"})) << trace();
    const size_t fds_before = daemon_fds(1s);
    const size_t journal = journal_mark();

    // A flapper falls sick once seen up and recovers once seen otherwise,
    // so both keep going down and up whatever the pace of the reloads.
    auto flap = [&](const std::string &name) {
        if (store_->get("tovrin." + name + ".status") == "up")
            sick(name);
        else
            healthy(name);
    };
    const auto began = std::chrono::steady_clock::now();
    for (int i = 1; i <= reloads; i++) {
        flap("f1");
        flap("f2");
        ASSERT_TRUE(reload(config(i % 2 == 0), 10s)) << "reload " << i << "\n" << trace();
    }
    const auto took = std::chrono::steady_clock::now() - began;
    healthy("f1");
    healthy("f2");
    ASSERT_TRUE(all_up({"s1", "s2", "p", "c", "d", "r", "f1", "f2"})) << trace();

    EXPECT_EQ(log_count("Finished Reloading Config"), reloads);
    EXPECT_EQ(log_count("Failed To Load Config"), 0);
    EXPECT_EQ(log_count("Unexpected timeout while reloading configuration."), 0);
    EXPECT_EQ(log_count("removing changed conn: d"), reloads);
    EXPECT_EQ(log_count("removing old conn: r"), reloads / 2);
    strings events = status_events_from(journal);
    auto deletes = [&](const std::string &name) {
        strings of = events_of(events, name);
        return std::count(of.begin(), of.end(), "deleted");
    };
    EXPECT_EQ(deletes("d"), reloads);
    EXPECT_EQ(deletes("r"), reloads / 2);
    for (const char *kept : {"s1", "s2", "p", "c"})
        EXPECT_EQ(published(kept), walk_up) << kept;
    for (const char *flapper : {"f1", "f2"})
        EXPECT_TRUE(contains(events_of(events, flapper), "down")) << flapper << " never flapped";

    // Settled as at the start: every up command runs again and the fewest
    // seen leaves out test commands in flight; the slack of two covers one
    // child whose pipes are open but not yet read to their end.
    const size_t fds_after = daemon_fds(1s);
    EXPECT_LE(fds_after, fds_before + 2) << fds_before << " before, " << fds_after << " after";
    std::printf(
        "%d reloads took %lld ms; daemon descriptors %zu before, %zu after\n", reloads,
        static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()),
        fds_before, fds_after);
}

}  // namespace
