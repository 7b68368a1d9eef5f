// The simulator must say what the daemon does: the golden case mutex (one
// configuration and one failure), run for real (tovrin-sandbox, stord,
// tests that are small shell scripts failing while a file says so), gives
// the sequence of states for every conn and the moves of the group that
// its golden timeline shows, which the simulator's own test holds it to. A
// recording of the real run by storectl record shows the same, and plots.

#include <signal.h>

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "sim/timeline.h"
#include "support/test_inst.h"

namespace {

// What cannot agree is when: the real run is driven by the wall clock (the
// failing file appears whenever the test gets to it, every command takes
// its milliseconds), the simulation by whole virtual seconds. So times are
// not compared, nor the failover timestamps' values (wall clock against
// virtual seconds), only how many were written. A failed member of a plain
// ordered group restarts until it passes, as often as its test delay
// allows in however long it stays failed, which is jitter too: the group
// of the golden case run here is a mutex group, whose failed member stays
// down. Timings are seconds, so the real run takes a few.
const strings conns = {"uplinks", "wan1", "wan2", "vpn"};

struct history {
    std::map<std::string, strings> states;  // by conn
    strings active;                         // the group's active member, as set
    int failovers = 0;                      // failover timestamps set
};

history from_timeline(const std::string &text) {
    history h;
    std::istringstream in(text);
    for (const timeline_event &e : timeline_read(in)) {
        std::string rest, first = timeline_word(e.text, &rest);
        if (e.verb == "state")
            h.states[first].push_back(rest);
        else if (e.verb == "set" && first == "tovrin.uplinks.active-connection-name")
            h.active.push_back(rest);
        else if (e.verb == "set" && first == "tovrin.uplinks.failover-timestamp")
            h.failovers++;
    }
    return h;
}

// What the daemon sent the store, from the store's journal.
history from_journal(const e2e_sandbox &s) {
    history h;
    for (const std::string &conn : conns)
        h.states[conn] = s.statuses(conn);
    std::istringstream journal(s.root.read_file("journal"));
    for (std::string line; std::getline(journal, line);) {
        const std::string active = " set tovrin.uplinks.active-connection-name 1 ";
        if (size_t at = line.find(active); at != std::string::npos)
            h.active.push_back(line.substr(at + active.size()));
        if (line.find(" set tovrin.uplinks.failover-timestamp ") != std::string::npos)
            h.failovers++;
    }
    return h;
}

void expect_same(const history &real, const history &other, const char *what) {
    for (const std::string &conn : conns)
        EXPECT_EQ(real.states.at(conn), other.states.at(conn)) << what << ": " << conn;
    EXPECT_EQ(real.active, other.active) << what;
    EXPECT_EQ(real.failovers, other.failovers) << what;
}

TEST(SimHonesty, SimulationAgreesWithTheDaemon) {
    e2e_sandbox s;
    s.root.write_file("check", "#!/bin/sh\n[ ! -e \"" + s.root.path() + "/fail-$1\" ]\n");
    chmod(s.root.file("check").c_str(), 0755);
    const std::string socket = s.root.file("var/run/stord.sock");

    // The recorder follows the store from before the daemon starts; a key
    // of its own shows when its watch is in.
    child_process recorder(
        {TOVRIN_STORECTL_BIN, "--socket", socket, "record", s.root.file("recorded")},
        s.root.file("recorder.out"));
    ASSERT_TRUE(wait_until([&] {
        s.set("tovrin.probe.ready", "1");
        return s.root.read_file("recorded").find("tovrin.probe.ready") != std::string::npos;
    }));

    s.start(replaced(test_file("sim/golden/mutex.conf"), "ROOT", s.root.path()));
    ASSERT_TRUE(s.wait_status("vpn", "up"));
    s.root.write_file("fail-wan1", "");
    ASSERT_TRUE(wait_until([&] { return from_journal(s).active.size() == 2; }));
    // Healthy again before the failforward period ends, as in the script.
    std::filesystem::remove(s.root.file("fail-wan1"));
    ASSERT_TRUE(wait_until([&] { return from_journal(s).active.size() == 3; }));
    // The failforward sets the active member before vpn goes down and up
    // again, and the recorder hears of every change after the journal has
    // it: wait for the run to come to where the golden case ends, then for
    // the recording to hold all of it. A run that goes elsewhere times out
    // here and shows how it differs below.
    const history golden = from_timeline(test_file("sim/golden/mutex.timeline"));
    (void)wait_until([&] { return from_journal(s).states == golden.states; });
    (void)wait_until([&] {
        const history recorded = from_timeline(s.root.read_file("recorded"));
        return recorded.states == from_journal(s).states && recorded.active.size() == 3;
    });
    kill(recorder.pid(), SIGINT);
    EXPECT_EQ(recorder.wait_exit(), 0);
    s.stop_store();
    history real = from_journal(s);
    EXPECT_EQ(real.active, strings({"wan1", "wan2", "wan1"}));

    expect_same(real, golden, "simulated");

    std::string recorded = s.root.read_file("recorded");
    expect_same(real, from_timeline(recorded), "recorded");
    EXPECT_EQ(recorded.substr(recorded.rfind('\n', recorded.size() - 2) + 1).substr(15), "end\n");
    child_process plot({TOVRIN_STORECTL_BIN, "plot", s.root.file("recorded"), s.root.file("r.svg")},
                       s.root.file("plot.out"));
    EXPECT_EQ(plot.wait_exit(), 0) << s.root.read_file("plot.out");
    EXPECT_NE(s.root.read_file("r.svg").find("failforward to wan1"), std::string::npos);
}

}  // namespace
