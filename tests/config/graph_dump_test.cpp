#include "config/graph_dump.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/message.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"
#include "support/child_process.h"
#include "support/dump_checks.h"
#include "support/log_capture.h"
#include "support/test_inst.h"

namespace {

using namespace std::chrono_literals;
using strings = std::vector<std::string>;

const char graph_rel[] = "tmp/tovrin.dot";
const char snapshot_rel[] = "var/mnt/storage.usb";
const char marker_rel[] = "var/mnt/storage.usb/please-dump-dots";

// The golden file name, beside this source.
std::string golden_path(const std::string &name) {
    return (std::filesystem::path(__FILE__).parent_path() / "golden" / name).string();
}

// What tovrin_graph_node writes for conn.
std::string node_text(const tovrin_conn *conn, int cluster) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    if (stream == nullptr)
        return "(open_memstream failed)";
    tovrin_graph_node(conn, stream, cluster);
    fclose(stream);
    std::unique_ptr<char, free_deleter> owned(text);
    return std::string(text, size);
}

class GraphDump : public ::testing::Test {
  protected:
    GraphDump() { t.root.make_dirs("tmp"); }

    void load(const std::string &text) {
        t.write_config(text);
        ASSERT_EQ(t.load(), 0);
    }

    // The graph file after its time comment, checked on the way.
    std::string dump() {
        t.root.write_file(graph_rel, std::string(20000, 'x') + "\n");
        tovrin_graph_dump(SIGUSR2, EV_SIGNAL, &t.inst);
        std::string text = t.root.read_file(graph_rel);
        size_t end = text.find("\n */\n");
        EXPECT_EQ(text.compare(0, 3, "/* "), 0) << text;
        if (end == std::string::npos || text.compare(0, 3, "/* ") != 0) {
            ADD_FAILURE() << "no time comment: " << text;
            return text;
        }
        EXPECT_TRUE(is_recent_asctime(text.substr(3, end - 2))) << text.substr(0, end);
        return text.substr(end + 5);
    }

    // The snapshot files written so far, oldest first.
    strings snapshots() const {
        strings names;
        std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(t.root.file(snapshot_rel).c_str()),
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

    test_inst t;
};

const char graph_frame[] =
    "/* Process with graphviz's dot utility: */\n"
    "/* dot tovrin.dot -Tgif > tovrin.gif */\n"
    "digraph G {\n"
    "\tcompound=true;\n";

TEST_F(GraphDump, NodeColourFollowsTheStateAndRMarksARestart) {
    load("conn c\n");
    tovrin_conn *c = t.conn("c");
    struct colour_case {
        int state;
        int restart;
        const char *line;
    };
    const colour_case cases[] = {
        {0, 0, "\t\"c\" [style=filled,fillcolor=\"grey\", label=\"\\N\\n\"];\n"},
        {1, 0, "\t\"c\" [style=filled,fillcolor=\"#DDDDFF\", label=\"\\N\\n\"];\n"},
        {2, 0, "\t\"c\" [style=filled,fillcolor=\"#44A4FF\", label=\"\\N\\n\"];\n"},
        {3, 0, "\t\"c\" [style=filled,fillcolor=\"#3050FF\", label=\"\\N\\n\"];\n"},
        {4, 0, "\t\"c\" [style=filled,fillcolor=\"#DCFFCC\", label=\"\\N\\n\"];\n"},
        {5, 0, "\t\"c\" [style=filled,fillcolor=\"#33FF55\", label=\"\\N\\n\"];\n"},
        {6, 0, "\t\"c\" [style=filled,fillcolor=\"#119911\", label=\"\\N\\n\"];\n"},
        {6, 1, "\t\"c\" [style=filled,fillcolor=\"#119911\", label=\"\\N\\nR\"];\n"},
        {7, 0, "\t\"c\" [style=filled,fillcolor=\"#FFBBBB\", label=\"\\N\\n\"];\n"},
        {8, 0, "\t\"c\" [style=filled,fillcolor=\"#F08600\", label=\"\\N\\n\"];\n"},
        {9, 2, "\t\"c\" [style=filled,fillcolor=\"#FF2222\", label=\"\\N\\nR\"];\n"},
        {10, 0, "\t\"c\" [style=filled,fillcolor=\"#7F40FF\", label=\"\\N\\n\"];\n"},
        {11, 0, "\t\"c\" [style=filled,fillcolor=\"#FF407F\", label=\"\\N\\n\"];\n"},
        {12, 0, "\t\"c\" [style=filled,fillcolor=yellow, label=\"\\N\\n\"];\n"},
        {-1, 1, "\t\"c\" [style=filled,fillcolor=yellow, label=\"\\N\\nR\"];\n"},
    };
    for (const colour_case &k : cases) {
        c->current_state = k.state;
        c->restart_after_stopping = k.restart;
        EXPECT_EQ(node_text(c, 0), k.line) << "state " << k.state;
    }
}

TEST_F(GraphDump, DeafConnIsDottedRedWhateverItsStateAndKeepsItsChildEdges) {
    load("conn a\n\tparent ghost\nconn b\n\tparent ghost\n");
    tovrin_conn *ghost = t.conn("ghost");
    ASSERT_EQ(ghost->is_deaf, 1);
    ghost->current_state = TOVRIN_STATE_UP;
    ghost->restart_after_stopping = 1;
    EXPECT_EQ(node_text(ghost, 2),
              "\t\"ghost\" [style=dotted,color=red];\n"
              "\t\"ghost\"->\"a\";\n"
              "\t\"ghost\"->\"b\";\n");
}

TEST_F(GraphDump, GroupWithoutNamedMembersGetsItsBoxAndAnEmptyCluster) {
    load("anygroup g\n");
    tovrin_conn *g = t.conn("g");
    const std::string empty_cluster =
        "\t\"g\" [style=filled,fillcolor=\"grey\", label=\"\\N\\n\"];\n"
        "\t\"g\" [shape=box,label=\"group g\"];\n"
        "\tsubgraph cluster3 {\n"
        "\t\t\"g\";\n"
        "\t}\n";
    EXPECT_EQ(node_text(g, 3), empty_cluster);
    // A member link without a name is no member.
    tovrin_group_add_member(g, "");
    EXPECT_EQ(node_text(g, 3), empty_cluster);
}

TEST_F(GraphDump, GroupDrawsChildEdgesThenMembersInFailoverOrder) {
    load("orderedgroup g\n\tchild k\n\tmember a\nconn k\nconn a\nconn b\n");
    tovrin_conn *g = t.conn("g");
    // An unnamed member between two named ones uses up no position.
    tovrin_group_add_member(g, "");
    tovrin_group_add_member(g, "b");
    tovrin_conn_add_child(g, "");
    g->current_state = TOVRIN_STATE_STARTING_MEMBERS;
    EXPECT_EQ(node_text(g, 0),
              "\t\"g\" [style=filled,fillcolor=\"#7F40FF\", label=\"\\N\\n\"];\n"
              "\t\"g\" [shape=box,label=\"group g\"];\n"
              "\t\"g\"->\"k\";\n"
              "\t\"g\"->\"a\" [label=\"0\",style=dotted];\n"
              "\t\"g\"->\"b\" [label=\"1\",style=dotted];\n"
              "\tsubgraph cluster0 {\n"
              "\t\t\"g\";\n"
              "\t\t\"a\";\n"
              "\t\t\"b\";\n"
              "\t}\n");
    // A conn draws no members and no cluster, even given a member link.
    tovrin_group_add_member(t.conn("k"), "a");
    EXPECT_EQ(node_text(t.conn("k"), 1),
              "\t\"k\" [style=filled,fillcolor=\"grey\", label=\"\\N\\n\"];\n");
    // A record of no known type is its node line alone.
    g->type = 5;
    EXPECT_EQ(node_text(g, 0), "\t\"g\" [style=filled,fillcolor=\"#7F40FF\", label=\"\\N\\n\"];\n");
    g->type = TOVRIN_ORDEREDGROUP;
}

TEST_F(GraphDump, EmptyConfigurationIsTheFrameAloneAndRenders) {
    log_capture log;
    EXPECT_EQ(dump(), std::string(graph_frame) + "}\n");
    EXPECT_EQ(log.records(),
              (std::vector<log_record>{
                  {TOVRIN_LOG_INFO, "SIGUSR2 - Dumping graphviz to " + t.paths.graph_dump_file}}));
    expect_renders(t.paths.graph_dump_file, t.root);
}

// Clusters are numbered by position among all conns, gaps included.
TEST_F(GraphDump, WholeGraphMatchesItsGoldenFileAndRenders) {
    load(
        "conn wan\n\tchild lan\nconn lan\n\tparent ghost\n"
        "orderedgroup uplinks\n\tmember wan\n\tmember lte\nconn lte\n"
        "anygroup pool\n\tmember lan\n\tparent wan\n");
    t.conn("wan")->current_state = TOVRIN_STATE_UP;
    t.conn("wan")->restart_after_stopping = 1;
    t.conn("lan")->current_state = TOVRIN_STATE_TESTING;
    t.conn("uplinks")->current_state = TOVRIN_STATE_STARTING_MEMBERS;
    t.conn("lte")->current_state = TOVRIN_STATE_STOPPING;
    std::string text = dump();
    ASSERT_EQ(text.compare(0, sizeof graph_frame - 1, graph_frame), 0) << text;
    expect_golden(golden_path("graph.dot"), text);
    expect_renders(t.paths.graph_dump_file, t.root);
}

TEST_F(GraphDump, UnopenableFileLogsTwoFatalLines) {
    t.root.make_dirs(graph_rel);
    log_capture log;
    tovrin_graph_dump(SIGUSR2, EV_SIGNAL, &t.inst);
    const std::string &path = t.paths.graph_dump_file;
    EXPECT_EQ(log.records(), (std::vector<log_record>{
                                 {TOVRIN_LOG_INFO, "SIGUSR2 - Dumping graphviz to " + path},
                                 {TOVRIN_LOG_FATAL, "Failed to open " + path + " for writing"},
                                 {TOVRIN_LOG_FATAL, "Failed to dump graphviz"},
                             }));
}

class MqSnapshot : public GraphDump {
  protected:
    MqSnapshot() { t.root.make_dirs(snapshot_rel); }
};

// A snapshot's name and first line carry the same clock reading: the local
// time to the second in the name, the epoch seconds in the graph's name,
// the nanoseconds in both.
void expect_stamped_alike(const std::string &name, const std::string &text) {
    static const std::regex name_shape("([0-9]{8}-[0-9]{6})\\.([0-9]{9})\\.dot");
    static const std::regex head_shape("digraph \"([0-9]+)\\.([0-9]{9})\" \\{\n[\\s\\S]*");
    std::smatch n, h;
    ASSERT_TRUE(std::regex_match(name, n, name_shape)) << name;
    ASSERT_TRUE(std::regex_match(text, h, head_shape)) << text;
    EXPECT_EQ(n[2].str(), h[2].str());
    time_t seconds = static_cast<time_t>(std::stoll(h[1].str()));
    tm local{};
    ASSERT_NE(localtime_r(&seconds, &local), nullptr);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);
    EXPECT_EQ(n[1].str(), stamp);
}

TEST_F(MqSnapshot, FilesAppearOnlyWhileTheMarkerExists) {
    load("conn a\n\tparent b\nconn b\n");
    tovrin_conn *a = t.conn("a"), *b = t.conn("b");
    log_capture log;

    tovrin_conn_deliver_message(&t.inst, nullptr, a, TOVRIN_MSG_START);
    tovrin_mq_snapshot(&t.inst, nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(snapshots(), strings{});

    t.root.write_file(marker_rel, "");
    tovrin_conn_deliver_message(&t.inst, a, b, TOVRIN_MSG_CHECK_STOP);
    strings files = snapshots();
    ASSERT_EQ(files.size(), 1u);
    std::string text = t.root.read_file(std::string(snapshot_rel) + "/" + files[0]);
    expect_stamped_alike(files[0], text);
    // The daemon's own message has no sender: "null" here, though the
    // daemon's node is "tovrin".
    const std::string body =
        "\tlabel=\"\\G\"\n"
        "\tnodesep=1.5\nranksep=1.5\n"
        "\tcompound=true;\n"
        "subgraph cluster_mq {\nlabel=\"message queue\"\n"
        "\"head\" [shape=Mrecord label=\"{{id | {src | dst | type}}}\"]\n"
        "\"m0\" [shape=Mrecord label=\"{{m0 | {null | a | start}}}\"]\n"
        "\"head\" -> \"m0\""
        "\"m1\" [shape=Mrecord label=\"{{m1 | {a | b | check stop}}}\"]\n"
        "\"m0\" -> \"m1\"}\n"
        "\tsubgraph cluster_conns {\n"
        "\t\"tovrin\";\n"
        "\t\"a\" [style=filled,fillcolor=\"grey\", label=\"\\N\\n\"];\n"
        "\t\"b\" [style=filled,fillcolor=\"grey\", label=\"\\N\\n\"];\n"
        "\t\"b\"->\"a\";\n"
        "\"null\" -> \"a\" [style=\"dashed\" constraint=false label=\"m0 : start\"]\n"
        "\"a\" -> \"b\" [style=\"dashed\" constraint=false label=\"m1 : check stop\"]\n"
        "\t}\n"
        "}\n";
    EXPECT_EQ(text.substr(text.find('\n') + 1), body);
    expect_renders(t.root.file(std::string(snapshot_rel) + "/" + files[0]), t.root);

    // Every call while the marker exists is a file of its own.
    tovrin_mq_snapshot(&t.inst, nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(snapshots().size(), 2u);

    std::remove(t.root.file(marker_rel).c_str());
    tovrin_conn_deliver_message(&t.inst, b, a, TOVRIN_MSG_RESTART);
    tovrin_mq_snapshot(&t.inst, nullptr, nullptr, nullptr, 0);
    tovrin_mq_snapshot(nullptr, nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(snapshots().size(), 2u);
    EXPECT_EQ(log.records(), std::vector<log_record>{});
}

TEST_F(MqSnapshot, EmptyQueueAndGroupClustersRender) {
    load("orderedgroup g\n\tmember a\nconn a\n\tparent ghost\n");
    t.root.write_file(marker_rel, "");
    tovrin_mq_snapshot(&t.inst, nullptr, nullptr, nullptr, 0);
    strings files = snapshots();
    ASSERT_EQ(files.size(), 1u);
    std::string path = t.root.file(std::string(snapshot_rel) + "/" + files[0]);
    std::string text = t.root.read_file(std::string(snapshot_rel) + "/" + files[0]);
    EXPECT_NE(text.find("\"head\" [shape=Mrecord label=\"{{id | {src | dst | type}}}\"]\n}\n"),
              std::string::npos)
        << text;
    expect_renders(path, t.root);
}

TEST_F(MqSnapshot, UnopenableFileLogsTwoFatalLines) {
    t.root.write_file(marker_rel, "");
    t.paths.snapshot_dir = t.root.file("missing");
    log_capture log;
    tovrin_mq_snapshot(&t.inst, "a", "b", "start", 1);
    ASSERT_EQ(log.records().size(), 2u);
    const log_record &first = log.records()[0];
    EXPECT_EQ(first.priority, TOVRIN_LOG_FATAL);
    const std::string prefix = "Failed to open " + t.root.file("missing") + "/";
    ASSERT_EQ(first.message.compare(0, prefix.size(), prefix), 0) << first.message;
    std::string name = first.message.substr(prefix.size());
    EXPECT_TRUE(
        std::regex_match(name, std::regex("[0-9]{8}-[0-9]{6}\\.[0-9]{9}\\.dot for writing")))
        << first.message;
    EXPECT_EQ(log.records()[1], (log_record{TOVRIN_LOG_FATAL, "Failed to open graph dump file."}));
}

}  // namespace
