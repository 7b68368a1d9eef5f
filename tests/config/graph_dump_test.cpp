#include "config/graph_dump.h"

#include <filesystem>

#include "support/test_inst.h"

// What tovrin_graph_node writes for conn.
static std::string node_text(const tovrin_conn *conn) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    tovrin_graph_node(conn, stream, 0);
    fclose(stream);
    std::unique_ptr<char, free_deleter> owned(text);
    return std::string(text, size);
}

TEST(GraphDump, NodeColourFollowsTheStateAndRMarksARestart) {
    test_inst t("conn c\n");
    tovrin_conn *c = t.conn("c");
    const char *colours[] = {"\"grey\"",    "\"#DDDDFF\"", "\"#44A4FF\"", "\"#3050FF\"",
                             "\"#DCFFCC\"", "\"#33FF55\"", "\"#119911\"", "\"#FFBBBB\"",
                             "\"#F08600\"", "\"#FF2222\"", "\"#7F40FF\"", "\"#FF407F\"",
                             "yellow",      "yellow"};
    for (int state = 0; state < 14; state++) {
        c->current_state = state == 13 ? -1 : state;
        c->restart_after_stopping = state % 2;
        EXPECT_EQ(node_text(c), std::string("\t\"c\" [style=filled,fillcolor=") + colours[state] +
                                    ", label=\"\\N\\n" + (state % 2 ? "R" : "") + "\"];\n")
            << state;
    }
}

// While the marker exists every queued and dispatched message and every
// status change leaves a file named after the moment; never otherwise.
TEST(GraphDump, SnapshotsAppearOnlyWhileTheMarkerExists) {
    test_inst t("conn a\n\tparent b\n\tlog none\nconn b\n\tlog none\n");
    const std::filesystem::path dir = t.root.file("var/mnt/storage.usb");
    auto files = [&] {
        strings names;
        for (const auto &entry : std::filesystem::directory_iterator(dir))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    };
    std::filesystem::create_directories(dir);
    t.deliver("a", TOVRIN_MSG_START);
    ASSERT_TRUE(t.dispatch());
    EXPECT_TRUE(files().empty());
    t.root.write_file("var/mnt/storage.usb/please-dump-dots", "");
    tovrin_conn_deliver_message(&t.inst, t.conn("a"), t.conn("b"), TOVRIN_MSG_CHECK_STOP);
    strings names = files();
    ASSERT_EQ(names.size(), 2u);
    char day[16];
    time_t now = time(nullptr);
    strftime(day, sizeof day, "%Y%m%d-", localtime(&now));
    EXPECT_EQ(names[0].substr(0, 9), day);
    EXPECT_EQ(names[0].size(), std::string("20261124-101010.123456789.dot").size()) << names[0];
    std::string text = t.root.read_file("var/mnt/storage.usb/" + names[0]);
    ASSERT_TRUE(text.starts_with("digraph \"")) << text;
    EXPECT_EQ(text.substr(text.find("\tlabel=")), test_file("config/golden/snapshot.dot"));
    ASSERT_TRUE(t.dispatch());
    EXPECT_GT(files().size(), 2u);
}
