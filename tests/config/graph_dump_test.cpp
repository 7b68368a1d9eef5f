#include "config/graph_dump.h"

#include <filesystem>

#include "support/test_inst.h"

// A wall clock stopped at 2026-11-24 10:10:10 UTC that moves on a
// nanosecond at each reading, so every snapshot has a name of its own.
struct ticking_clock final : tovrin_clock {
    timespec wall() override { return timespec{1795515010, ++ticks}; }
    long ticks = 0;
};

// While the marker exists every queued and dispatched message and every
// status change leaves a file named after the moment; never otherwise.
TEST(GraphDump, SnapshotsAppearOnlyWhileTheMarkerExists) {
    setenv("TZ", "UTC", 1);
    tzset();
    test_inst t("conn a\n\tparent b\n\tlog none\nconn b\n\tlog none\n");
    t.inst.clock = std::make_unique<ticking_clock>();
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
    ASSERT_EQ(names, (strings{"20261124-101010.000000001.dot", "please-dump-dots"}));
    std::string text = t.root.read_file("var/mnt/storage.usb/" + names[0]);
    ASSERT_TRUE(text.starts_with("digraph \"")) << text;
    EXPECT_EQ(text.substr(text.find("\tlabel=")), test_file("config/golden/snapshot.dot"));
    ASSERT_TRUE(t.dispatch());
    EXPECT_GT(files().size(), 2u);
}
