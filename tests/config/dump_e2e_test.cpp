#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/daemon_fixture.h"
#include "support/dump_checks.h"

namespace {

using namespace std::chrono_literals;
using strings = std::vector<std::string>;

const char state_rel[] = "tmp/tovrin.conf";
const char graph_rel[] = "tmp/tovrin.dot";
const char snapshot_rel[] = "var/mnt/storage.usb";
const char marker_rel[] = "var/mnt/storage.usb/please-dump-dots";

// What follows the first line of text, or "" without one.
std::string after_line(const std::string &text, const std::string &end_of_line) {
    size_t at = text.find(end_of_line);
    return at == std::string::npos ? "" : text.substr(at + end_of_line.size());
}

class Dumps : public daemon_fixture {
  protected:
    // Sends sig until the file at rel, past its time line (ended by
    // end_of_line), reads expected: the daemon may still be settling, and a
    // file caught half written is read again. The last text read is kept.
    bool dump_until(int sig, const char *rel, const std::string &end_of_line,
                    const std::string &expected, std::string &seen) {
        return wait_until(
            [&] {
                daemon_->kill(sig);
                return wait_until(
                    [&] {
                        seen = after_line(root_.read_file(rel), end_of_line);
                        return seen == expected;
                    },
                    200ms);
            },
            15s, 1ms);
    }

    // Asks for a state dump and waits for all of it. The daemon handles the
    // signal after the event it is in, so every snapshot begun before is
    // complete by then.
    bool state_dumped() {
        std::remove(root_.file(state_rel).c_str());
        daemon_->kill(SIGUSR1);
        const std::string tail = "# No new conns pending merge\n";
        return wait_until(
            [&] {
                std::string text = root_.read_file(state_rel);
                return text.size() >= tail.size() &&
                       text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
            },
            10s);
    }

    // The snapshot files so far.
    strings snapshots() const {
        strings names;
        std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(root_.file(snapshot_rel).c_str()),
                                                 closedir);
        if (dir == nullptr)
            return names;
        while (dirent *entry = readdir(dir.get())) {
            std::string name = entry->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".dot") == 0)
                names.push_back(name);
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

// Steady after start-up: tests run once an hour, the keepalive is off and
// nothing else is queued.
const char steady_config[] =
    "global\n\tkeepalive 0\n"
    "conn wan\n\tstart /bin/true\n\ttest /bin/true\n\ttestdelay 0\n\ttestperiod 3600\n"
    "conn lan\n\tparent wan\n\ttest /bin/true\n\ttestdelay 0\n\ttestperiod 3600\n"
    "conn orphan\n\tparent ghost\n";

const std::string conn_counters =
    "\t#n_queued_stop_actions = 0\n\t#n_queued_start_actions = 0\n"
    "\t#n_queued_test_actions = 0\n\t#n_test_failures = 0\n";

TEST_F(Dumps, SignalsDumpTheStateAndTheGraphOfTheRunningDaemon) {
    start(steady_config);
    ASSERT_TRUE(wait_status("lan", "up")) << trace();
    ASSERT_TRUE(wait_status("orphan", "waiting to start")) << trace();

    const std::string settled =
        std::string("\t#restart_after_stopping = 0\n") + "\t#current_test_run_has_failure = 0\n";
    const std::string hourly =
        "\ttestperiod 3600\n\ttestdelay 0\n\ttesttimeout 30\n\ttestthreshold 1\n"
        "\tcommandtimeout 60\n";
    const std::string expected_state =
        "\n#global state\n\t#reloading_config = 0\n\n"
        "global\n\t#defaultlog 13770\n\tdefaultlog default\n\t#instancelog 16\n"
        "\tinstancelog externalcommands\n\tbootdelay 0\n\tkeepalive 0\n"
        "\tconfigreloadtimeout 600\n\n"
        "conn wan\n\t#current_state = up\n\t#previous_state = tested\n" +
        conn_counters + "\t#n_test_passes = 1\n" + settled + hourly +
        "\tchild lan\n\tstart /bin/true\n\ttest /bin/true\n\t#log 13770\n\tlog default\n\n"
        "conn lan\n\t#current_state = up\n\t#previous_state = tested\n" +
        conn_counters + "\t#n_test_passes = 1\n" + settled + hourly +
        "\tparent wan\n\ttest /bin/true\n\t#log 13770\n\tlog default\n\n"
        "conn orphan\n\t#current_state = waiting to start\n\t#previous_state = down\n" +
        conn_counters + "\t#n_test_passes = 0\n" + settled +
        "\ttestperiod 30\n\ttestdelay 30\n\ttesttimeout 30\n\ttestthreshold 1\n"
        "\tcommandtimeout 60\n\tparent ghost\n\t#log 13770\n\tlog default\n\n"
        "#conn ghost\n\t#undefined\n\n\n"
        "# No new global variables\n# No new conns pending merge\n";
    std::string seen;
    EXPECT_TRUE(dump_until(SIGUSR1, state_rel, "\n", expected_state, seen)) << seen;
    EXPECT_EQ(seen, expected_state);
    const std::string state_path = root_.file(state_rel);
    EXPECT_EQ(sandbox_.log_priority("SIGUSR1 - Dumping Config to " + state_path), "INFO");

    const std::string expected_graph =
        "/* Process with graphviz's dot utility: */\n"
        "/* dot tovrin.dot -Tgif > tovrin.gif */\n"
        "digraph G {\n\tcompound=true;\n"
        "\t\"wan\" [style=filled,fillcolor=\"#119911\", label=\"\\N\\n\"];\n"
        "\t\"wan\"->\"lan\";\n"
        "\t\"lan\" [style=filled,fillcolor=\"#119911\", label=\"\\N\\n\"];\n"
        "\t\"orphan\" [style=filled,fillcolor=\"#DDDDFF\", label=\"\\N\\n\"];\n"
        "\t\"ghost\" [style=dotted,color=red];\n"
        "\t\"ghost\"->\"orphan\";\n"
        "}\n";
    EXPECT_TRUE(dump_until(SIGUSR2, graph_rel, " */\n", expected_graph, seen)) << seen;
    EXPECT_EQ(seen, expected_graph);
    const std::string graph_path = root_.file(graph_rel);
    EXPECT_EQ(sandbox_.log_priority("SIGUSR2 - Dumping graphviz to " + graph_path), "INFO");
    expect_renders(graph_path, root_);
    // No marker, no snapshots.
    EXPECT_EQ(snapshots(), strings{});
}

TEST_F(Dumps, SnapshotsFollowTheQueueWhileTheMarkerExists) {
    root_.write_file(marker_rel, "");
    start("global\n\tkeepalive 0\nconn wan\n\ttest /bin/true\n\ttestdelay 0\n\ttestperiod 3600\n");
    ASSERT_TRUE(wait_status("wan", "up")) << trace();

    ASSERT_TRUE(state_dumped());

    strings files = snapshots();
    // Every queued and every dispatched message, and every status: the
    // start message from the daemon alone is two of them.
    ASSERT_GE(files.size(), 3u);
    bool start_seen = false;
    for (const std::string &name : files) {
        SCOPED_TRACE(name);
        std::string text = root_.read_file(std::string(snapshot_rel) + "/" + name);
        if (text.find("\"m0\" [shape=Mrecord label=\"{{m0 | {null | wan | start}}}\"]\n") !=
            std::string::npos)
            start_seen = true;
        expect_renders(root_.file(std::string(snapshot_rel) + "/" + name), root_);
    }
    EXPECT_TRUE(start_seen);

    // Without the marker a whole restart leaves no file.
    std::remove(root_.file(marker_rel).c_str());
    size_t before = published("wan").size();
    command("wan,cli,restart");
    ASSERT_TRUE(wait_until(
        [&] {
            strings states = published("wan");
            return states.size() > before + 2 && states.back() == "up";
        },
        15s))
        << trace();
    ASSERT_TRUE(state_dumped());
    EXPECT_EQ(snapshots(), files);
}

}  // namespace
