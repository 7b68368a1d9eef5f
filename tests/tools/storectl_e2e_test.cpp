// storectl run as a real process against a real stord.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <string>
#include <vector>

#include "stord/client.h"
#include "support/child_process.h"
#include "support/stord_harness.h"
#include "support/temp_dir.h"

namespace {

using namespace std::chrono_literals;
using strings = std::vector<std::string>;

constexpr auto patience = 10s;

struct ctl_result {
    std::optional<int> status;
    std::string out;
    std::string err;
};

// One storectl process and the files its output goes to.
struct ctl_process {
    child_process process;
    std::string out_name;
    std::string err_name;
};

class storectl_e2e : public ::testing::Test {
  protected:
    // Starts storectl on the test's store: --socket and its path, then args.
    ctl_process start(const strings &args) {
        strings with_socket{"--socket", store.socket_path()};
        with_socket.insert(with_socket.end(), args.begin(), args.end());
        return start_raw(with_socket);
    }

    // Starts storectl with exactly args.
    ctl_process start_raw(const strings &args) {
        strings argv{TOVRIN_STORECTL_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string name = "ctl" + std::to_string(++n_runs_);
        return {child_process::start(argv, dir.file(name + ".out"), dir.file(name + ".err")),
                name + ".out", name + ".err"};
    }

    ctl_result finish(ctl_process ctl) {
        ctl_result result;
        result.status = ctl.process.wait_exit(patience);
        result.out = dir.read_file(ctl.out_name);
        result.err = dir.read_file(ctl.err_name);
        return result;
    }

    ctl_result run(const strings &args) { return finish(start(args)); }
    ctl_result run_raw(const strings &args) { return finish(start_raw(args)); }

    // True once count journal lines end with suffix (a storectl subscribed
    // or started watching, say).
    bool journal_has(const std::string &suffix, std::size_t count = 1) {
        return store.wait_journal(
            [&](const strings &lines) {
                return static_cast<std::size_t>(
                           std::count_if(lines.begin(), lines.end(), [&](const std::string &l) {
                               return l.size() >= suffix.size() &&
                                      l.compare(l.size() - suffix.size(), suffix.size(), suffix) ==
                                          0;
                           })) >= count;
            },
            patience);
    }

    temp_dir dir;
    stord_harness store{dir.file("stord.sock"), dir.file("journal")};
    int n_runs_ = 0;
};

TEST_F(storectl_e2e, set_get_del_dump_and_cmd) {
    // Each run is one connection, numbered from 1; set, del and cmd return
    // only once the store applied them, so the journal order is the run order.
    struct {
        strings args;
        int status;
        std::string out;
        strings journal;
    } steps[] = {
        {{"dump"}, 0, "", {"1 dump"}},
        {{"set", "a", "hello world"}, 0, "", {"2 set a 1 hello world", "2 sync"}},
        {{"set", "b", "x=y"}, 0, "", {"3 set b 1 x=y", "3 sync"}},
        {{"get", "a"}, 0, "hello world\n", {"4 get a"}},
        {{"get", "c"}, 1, "", {"5 get c"}},
        {{"cmd", "wan,cli,restart"},
         0,
         "",
         {"6 set config.tovrin.command 1 wan,cli,restart", "6 sync"}},
        {{"get", "config.tovrin.command"}, 0, "wan,cli,restart\n", {"7 get config.tovrin.command"}},
        {{"dump"}, 0, "a=hello world\nb=x=y\nconfig.tovrin.command=wan,cli,restart\n", {"8 dump"}},
        {{"del", "a"}, 0, "", {"9 delete a", "9 sync"}},
        {{"get", "a"}, 1, "", {"10 get a"}},
        {{"del", "a"}, 0, "", {"11 delete a", "11 sync"}},
        {{"dump"}, 0, "b=x=y\nconfig.tovrin.command=wan,cli,restart\n", {"12 dump"}},
    };
    strings journal;
    for (const auto &step : steps) {
        SCOPED_TRACE(testing::PrintToString(step.args));
        ctl_result r = run(step.args);
        EXPECT_EQ(r.status, step.status) << r.err;
        EXPECT_EQ(r.out, step.out);
        EXPECT_EQ(r.err, "");
        journal.insert(journal.end(), step.journal.begin(), step.journal.end());
        EXPECT_EQ(store.journal(), journal);
    }
}

TEST_F(storectl_e2e, cmd_reaches_a_subscriber_of_the_command_key) {
    stord_client daemon(store.socket_path(), "tovrin");
    daemon.subscribe("config.tovrin.command");
    daemon.sync();
    for (const std::string text : {"wan,cli,restart", "all,cli,stop now"}) {
        SCOPED_TRACE(text);
        ctl_result r = run({"cmd", text});
        EXPECT_EQ(r.status, 0) << r.err;
        auto n = daemon.next_notification_record(patience);
        ASSERT_TRUE(n);
        EXPECT_EQ(n->key, "config.tovrin.command");
        EXPECT_EQ(n->value, text);
        EXPECT_EQ(n->flag, 1);
    }
}

TEST_F(storectl_e2e, wait_returns_once_the_key_holds_the_value) {
    store.set("k", "already");
    ctl_result r = run({"wait", "k", "already"});
    EXPECT_EQ(r.status, 0) << r.err;

    r = run({"wait", "k", "other", "100"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");

    ctl_process waiter = start({"wait", "k", "later", "10000"});
    ASSERT_TRUE(journal_has(" subscribe storectl k", 3));
    EXPECT_TRUE(waiter.process.running());
    store.set("k", "not yet");
    store.set("k", "later");
    EXPECT_EQ(waiter.process.wait_exit(patience), 0) << dir.read_file(waiter.err_name);
}

TEST_F(storectl_e2e, watch_prints_each_matching_change_until_a_signal) {
    int n_watches = 0;
    for (int sig : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(sig);
        store.set("tovrin.wan.status", "before");
        ctl_process watcher = start({"watch", "tovrin.*.status", "--for", "60"});
        ASSERT_TRUE(journal_has(" watch tovrin.*.status", ++n_watches));
        store.set("tovrin.wan.status", "up");
        store.set("tovrin.wan.uptime", "5");
        store.set("status", "x");
        store.set("tovrin.lan.status", "down");
        // The line ends where the value's first line does.
        store.set("tovrin.wan.status", "two words\nsecond line");
        const std::string expected =
            "tovrin.wan.status up\ntovrin.lan.status down\ntovrin.wan.status two words\n";
        EXPECT_TRUE(
            wait_until([&] { return dir.read_file(watcher.out_name) == expected; }, patience))
            << dir.read_file(watcher.out_name);
        EXPECT_TRUE(watcher.process.running());
        watcher.process.kill(sig);
        EXPECT_EQ(watcher.process.wait_exit(patience), 0);
        EXPECT_EQ(dir.read_file(watcher.err_name), "");
    }
}

TEST_F(storectl_e2e, watch_for_ends_by_itself) {
    struct {
        strings args;
        std::chrono::milliseconds at_least;
    } cases[] = {
        {{"watch", "k*", "--for", "0.5"}, 500ms},
        {{"watch", "--for", "0", "k*"}, 0ms},
    };
    std::size_t n_watches = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        auto started = std::chrono::steady_clock::now();
        ctl_process watcher = start(c.args);
        EXPECT_EQ(watcher.process.wait_exit(patience), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - started, c.at_least);
        EXPECT_EQ(dir.read_file(watcher.out_name), "");
        EXPECT_EQ(dir.read_file(watcher.err_name), "");
        // It did reach the store before its time ran out.
        EXPECT_TRUE(journal_has(" watch k*", ++n_watches));
    }
    EXPECT_TRUE(store.running());
}

TEST_F(storectl_e2e, watch_ends_with_1_when_the_store_goes) {
    ctl_process watcher = start({"watch", "k", "--for", "60"});
    ASSERT_TRUE(journal_has(" watch k"));
    store.stop();
    EXPECT_EQ(watcher.process.wait_exit(patience), 1);
    EXPECT_EQ(dir.read_file(watcher.err_name), "storectl: stord closed the connection\n");
}

TEST_F(storectl_e2e, usage_errors_exit_2_before_connecting) {
    const std::string sock = store.socket_path();
    const std::vector<strings> cases = {
        {},
        {"--socket"},
        {"--socket", sock},
        {"--sock", sock, "dump"},
        {"dump", "--socket", sock},
        {"--socket", sock, "--socket", sock, "dump"},
        {"--socket", sock, "bogus"},
        {"--socket", sock, "set", "k"},
        {"--socket", sock, "set", "k", "v", "1"},
        {"--socket", sock, "get"},
        {"--socket", sock, "get", "a", "b"},
        {"--socket", sock, "del"},
        {"--socket", sock, "dump", "extra"},
        {"--socket", sock, "wait", "k"},
        {"--socket", sock, "wait", "k", "v", "-5"},
        {"--socket", sock, "wait", "k", "v", "5s"},
        {"--socket", sock, "watch"},
        {"--socket", sock, "watch", "a", "b"},
        {"--socket", sock, "watch", "a", "--for"},
        {"--socket", sock, "watch", "--for", "1"},
        {"--socket", sock, "watch", "a", "--for", "-1"},
        {"--socket", sock, "watch", "a", "--for", "5s"},
        {"--socket", sock, "watch", "a", "--for", "nan"},
        {"--socket", sock, "watch", "a", "--for", "inf"},
        {"--socket", sock, "watch", "a", "--for", "1e300"},
        {"--socket", sock, "watch", "a", "--for", "1", "--for", "2"},
        {"--socket", sock, "cmd"},
        {"--socket", sock, "cmd", "a", "b"},
    };
    for (const auto &args : cases) {
        SCOPED_TRACE(testing::PrintToString(args));
        ctl_result r = run_raw(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("usage: storectl [--socket PATH] set KEY VALUE\n", 0), 0u) << r.err;
    }
    // None of them connected: the next client is connection 1.
    EXPECT_EQ(run({"get", "k"}).status, 1);
    EXPECT_EQ(store.journal(), strings{"1 get k"});
}

TEST_F(storectl_e2e, an_unreachable_store_exits_1_with_a_message) {
    dir.write_file("plain", "not a socket");
    struct {
        std::string socket;
        std::string cause;
    } places[] = {
        {dir.file("no-store.sock"), "No such file or directory"},
        {dir.file("plain"), "Connection refused"},
    };
    const std::vector<strings> commands = {
        {"get", "k"}, {"set", "k", "v"},         {"del", "k"},
        {"dump"},     {"wait", "k", "v", "100"}, {"watch", "k*", "--for", "60"},
        {"cmd", "x"},
    };
    for (const auto &place : places) {
        for (const auto &command : commands) {
            SCOPED_TRACE(place.socket + " " + command[0]);
            strings args{"--socket", place.socket};
            args.insert(args.end(), command.begin(), command.end());
            ctl_result r = run_raw(args);
            EXPECT_EQ(r.status, 1);
            EXPECT_EQ(r.out, "");
            EXPECT_EQ(r.err, "storectl: cannot connect to stord at " + place.socket + ": " +
                                 place.cause + "\n");
        }
    }
}

}  // namespace
