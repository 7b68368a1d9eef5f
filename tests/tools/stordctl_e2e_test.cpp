// stordctl run as a real process against a real stord.

#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

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

class stordctl_e2e : public ::testing::Test {
  protected:
    // Starts stordctl with args after the socket path; its output goes to
    // files of its own.
    child_process start(const strings &args, const std::string &socket = "") {
        strings argv{TOVRIN_STORDCTL_BIN, socket.empty() ? store.socket_path() : socket};
        argv.insert(argv.end(), args.begin(), args.end());
        n_runs_++;
        return child_process::start(argv, out_file(), err_file());
    }

    ctl_result run(const strings &args, const std::string &socket = "") {
        child_process ctl = start(args, socket);
        ctl_result result;
        result.status = ctl.wait_exit(patience);
        result.out = dir.read_file(out_name());
        result.err = dir.read_file(err_name());
        return result;
    }

    std::string out_name() const { return "ctl" + std::to_string(n_runs_) + ".out"; }
    std::string err_name() const { return "ctl" + std::to_string(n_runs_) + ".err"; }
    std::string out_file() const { return dir.file(out_name()); }
    std::string err_file() const { return dir.file(err_name()); }

    // True once a journal line ends with text (a stordctl subscribed, say).
    bool journal_has(const std::string &suffix) {
        return store.wait_journal(
            [&](const strings &lines) {
                for (const auto &line : lines) {
                    if (line.size() >= suffix.size() &&
                        line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0)
                        return true;
                }
                return false;
            },
            patience);
    }

    temp_dir dir;
    stord_harness store{dir.file("stord.sock"), dir.file("journal")};
    int n_runs_ = 0;
};

TEST_F(stordctl_e2e, set_get_del_and_dump) {
    struct {
        strings args;
        int status;
        std::string out;
    } steps[] = {
        {{"dump"}, 0, ""},
        {{"set", "a", "hello world"}, 0, ""},
        {{"set", "b", "x=y", "2"}, 0, ""},
        {{"get", "a"}, 0, "hello world\n"},
        {{"get", "b"}, 0, "x=y\n"},
        {{"get", "c"}, 1, ""},
        {{"dump"}, 0, "a=hello world\nb=x=y\n"},
        {{"del", "a"}, 0, ""},
        {{"get", "a"}, 1, ""},
        {{"del", "a"}, 0, ""},
        {{"dump"}, 0, "b=x=y\n"},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(step.args[0] + (step.args.size() > 1 ? " " + step.args[1] : ""));
        ctl_result r = run(step.args);
        EXPECT_EQ(r.status, step.status) << r.err;
        EXPECT_EQ(r.out, step.out);
        EXPECT_EQ(r.err, "");
    }
    // Each command is one connection; set and del are applied before they
    // exit, so the order here is the order they ran in.
    EXPECT_EQ(store.journal(),
              (strings{"2 set a 1 hello world", "3 set b 2 x=y", "8 delete a", "10 delete a"}));
}

TEST_F(stordctl_e2e, wait_returns_once_the_key_holds_the_value) {
    store.set("k", "already");
    ctl_result r = run({"wait", "k", "already"});
    EXPECT_EQ(r.status, 0) << r.err;

    r = run({"wait", "k", "other", "100"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");

    child_process waiter = start({"wait", "k", "later", "10000"});
    ASSERT_TRUE(journal_has(" subscribe stordctl k"));
    EXPECT_TRUE(waiter.running());
    store.set("k", "not yet");
    store.set("k", "later");
    EXPECT_EQ(waiter.wait_exit(patience), 0) << dir.read_file(err_name());
}

TEST_F(stordctl_e2e, watch_prints_every_value) {
    store.set("k", "v0");
    child_process watcher = start({"watch", "k"});
    ASSERT_TRUE(journal_has(" subscribe stordctl k"));
    store.set("k", "v1");
    store.set("other", "x");
    store.set("k", "v2");
    EXPECT_TRUE(wait_until([&] { return dir.read_file(out_name()) == "v0\nv1\nv2\n"; }, patience))
        << dir.read_file(out_name());
    EXPECT_TRUE(watcher.running());
    watcher.kill(SIGTERM);
    EXPECT_EQ(watcher.wait_exit(patience), 128 + SIGTERM);
}

TEST_F(stordctl_e2e, usage_errors_exit_2) {
    const std::vector<strings> cases = {
        {},
        {"bogus"},
        {"set", "k"},
        {"set", "k", "v", "1", "extra"},
        {"set", "k", "v", "one"},
        {"get"},
        {"del"},
        {"dump", "extra"},
        {"wait", "k"},
        {"wait", "k", "v", "-5"},
        {"wait", "k", "v", "5s"},
        {"watch"},
    };
    for (const auto &args : cases) {
        SCOPED_TRACE(args.empty() ? "(none)" : args[0]);
        ctl_result r = run(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("usage: stordctl SOCKET_PATH", 0), 0u) << r.err;
    }
    // None of them reached the store with a request.
    EXPECT_EQ(store.journal(), strings{});
}

TEST_F(stordctl_e2e, an_unreachable_store_exits_1) {
    for (const strings &args : std::vector<strings>{{"get", "k"}, {"set", "k", "v"}, {"dump"}}) {
        SCOPED_TRACE(args[0]);
        ctl_result r = run(args, dir.file("no-store.sock"));
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "stordctl: connect to " + dir.file("no-store.sock") +
                             ": No such file or directory\n");
    }
}

TEST_F(stordctl_e2e, watch_ends_with_1_when_the_store_goes) {
    child_process watcher = start({"watch", "k"});
    ASSERT_TRUE(journal_has(" subscribe stordctl k"));
    store.stop();
    EXPECT_EQ(watcher.wait_exit(patience), 1);
    EXPECT_EQ(dir.read_file(err_name()), "stordctl: stord closed the connection\n");
}

}  // namespace
