#include "daemon/paths.h"

#include <gtest/gtest.h>

namespace {

TEST(Paths, TheSandboxPlacesEveryFixedPathUnderItsRoot) {
    tovrin_paths fixed = tovrin_paths_production();
    EXPECT_EQ(fixed.config_file, "/etc/config/tovrin.conf");
    EXPECT_EQ(fixed.state_dump_file, "/tmp/tovrin.conf");
    EXPECT_EQ(fixed.graph_dump_file, "/tmp/tovrin.dot");
    EXPECT_EQ(fixed.snapshot_dir, "/var/mnt/storage.usb");
    EXPECT_EQ(fixed.snapshot_marker, "/var/mnt/storage.usb/please-dump-dots");
    EXPECT_EQ(fixed.uptime_file, "/proc/uptime");
    EXPECT_EQ(fixed.run_dir, "/var/run");
    EXPECT_EQ(fixed.store_socket, "/var/run/stord.sock");
    EXPECT_EQ(fixed.log_file, "");
    for (const char *root : {"/r", "/r//"}) {
        tovrin_paths placed = tovrin_paths_sandbox(root);
        EXPECT_EQ(placed.config_file, "/r/etc/config/tovrin.conf");
        EXPECT_EQ(placed.store_socket, "/r/var/run/stord.sock");
        EXPECT_EQ(placed.log_file, "/r/var/log/tovrin.log");
    }
    EXPECT_EQ(tovrin_paths_sandbox("/").snapshot_marker, fixed.snapshot_marker);
}

}  // namespace
