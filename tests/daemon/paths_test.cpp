#include "daemon/paths.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> all(const tovrin_paths &p) {
    return {p.config_file,     p.state_dump_file, p.graph_dump_file, p.snapshot_dir,
            p.snapshot_marker, p.uptime_file,     p.run_dir,         p.store_socket};
}

TEST(Paths, ProductionUsesTheFixedPathsAndSyslog) {
    tovrin_paths p = tovrin_paths_production();
    const std::vector<std::string> expected = {"/etc/config/tovrin.conf",
                                               "/tmp/tovrin.conf",
                                               "/tmp/tovrin.dot",
                                               "/var/mnt/storage.usb",
                                               "/var/mnt/storage.usb/please-dump-dots",
                                               "/proc/uptime",
                                               "/var/run",
                                               "/var/run/stord.sock"};
    EXPECT_EQ(all(p), expected);
    EXPECT_EQ(p.log_file, "");
}

TEST(Paths, SandboxPlacesEveryPathUnderTheRoot) {
    tovrin_paths production = tovrin_paths_production();
    for (const std::string root : {"/tmp/r", "/tmp/r/", "/tmp/r//"}) {
        tovrin_paths sandbox = tovrin_paths_sandbox(root);
        std::vector<std::string> fixed = all(production);
        std::vector<std::string> placed = all(sandbox);
        for (size_t i = 0; i < fixed.size(); i++)
            EXPECT_EQ(placed[i], "/tmp/r" + fixed[i]) << root;
        EXPECT_EQ(sandbox.log_file, "/tmp/r/var/log/tovrin.log") << root;
    }
}

TEST(Paths, SandboxAtTheFilesystemRootKeepsTheFixedPaths) {
    tovrin_paths sandbox = tovrin_paths_sandbox("/");
    EXPECT_EQ(all(sandbox), all(tovrin_paths_production()));
    EXPECT_EQ(sandbox.log_file, "/var/log/tovrin.log");
}

}  // namespace
