// The stand-in store and its client, as the daemon's tests and operators use
// them.

#include <signal.h>

#include "support/test_inst.h"

using result = std::pair<int, std::string>;

static result storectl(e2e_sandbox &s, strings args) {
    args.insert(args.begin(), {TOVRIN_STORECTL_BIN, "--socket", s.root.file("var/run/stord.sock")});
    s.root.write_file("ctl.out", "");
    child_process ctl(args, s.root.file("ctl.out"));
    return {ctl.wait_exit().value_or(-1), s.root.read_file("ctl.out")};
}

TEST(StoreTools, StorectlSubcommandsAndTheirStatuses) {
    e2e_sandbox s;
    EXPECT_EQ(storectl(s, {"set", "a", "hello world"}), result(0, ""));
    EXPECT_EQ(storectl(s, {"cmd", "wan,cli,restart"}), result(0, ""));
    EXPECT_EQ(storectl(s, {"get", "a"}), result(0, "hello world\n"));
    EXPECT_EQ(storectl(s, {"get", "c"}), result(1, ""));
    EXPECT_EQ(storectl(s, {"dump"}),
              result(0, "a=hello world\nconfig.tovrin.command=wan,cli,restart\n"));
    EXPECT_EQ(storectl(s, {"del", "a"}), result(0, ""));

    // status: one line per conn with a status key, groups with their
    // active member and last failover in local time.
    setenv("TZ", "UTC", 1);
    for (auto [key, value] : {std::pair{"tovrin.a.b.status", "waiting to start"},
                              {"tovrin.up.status", "up"},
                              {"tovrin.up.active-connection-name", "wan"},
                              {"tovrin.up.failover-timestamp", "1795000000"},
                              {"tovrin.gone.connection-names", "wan"},
                              {"tovrin.wan.status", "down"}})
        storectl(s, {"set", key, value});
    const std::string table =
        "NAME  STATE             ACTIVE  FAILED OVER\n"
        "a.b   waiting to start\n"
        "up    up                wan     2026-11-18 11:06:40\n"
        "wan   down\n";
    EXPECT_EQ(storectl(s, {"status"}), result(0, table));
    EXPECT_EQ(storectl(s, {"status", "--watch", "--for", "0.1"}), result(0, table));
    EXPECT_EQ(storectl(s, {"bogus"}).first, 2);
    kill(s.store->pid(), SIGTERM);
    EXPECT_EQ(s.store->wait_exit(), 0);
    EXPECT_FALSE(s.root.exists("var/run/stord.sock"));
    result gone = storectl(s, {"get", "a"});
    EXPECT_EQ(gone.first, 1);
    EXPECT_NE(gone.second, "");
}
