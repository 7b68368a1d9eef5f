#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/sandbox.h"
#include "support/stord_harness.h"
#include "support/temp_dir.h"

namespace {

using namespace std::chrono_literals;

class StoreLinkProcess : public ::testing::Test {
  protected:
    void SetUp() override { root_.make_dirs("var/run"); }

    temp_dir root_;
    sandbox sandbox_{root_};
};

TEST_F(StoreLinkProcess, TheCommandKeySubscriptionIsTheFirstRequest) {
    stord_harness store(sandbox_.store_socket(), root_.file("journal"));
    child_process daemon = sandbox_.start();

    ASSERT_TRUE(
        store.wait_journal([](const std::vector<std::string> &j) { return !j.empty(); }, 10s));
    // The daemon is the store's first client.
    EXPECT_EQ(store.journal().front(), "1 subscribe tovrin config.tovrin.command");

    store.stop();
    std::optional<int> status = daemon.wait_exit(10s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(*status, 1) << sandbox_.daemon_stderr();
    EXPECT_FALSE(sandbox_.pidfile_pid().has_value());
}

TEST_F(StoreLinkProcess, CommandsWrittenToTheStoreReachTheDaemon) {
    stord_harness store(sandbox_.store_socket(), root_.file("journal"));
    child_process daemon = sandbox_.start();
    ASSERT_TRUE(
        store.wait_journal([](const std::vector<std::string> &j) { return !j.empty(); }, 10s));

    // No conn of that name is in force: the reader hands the value to the
    // command handler, which refuses it.
    store.set("config.tovrin.command", "nosuch,cli,start");
    EXPECT_TRUE(sandbox_.wait_log("control message for invalid conn \"nosuch\" received", 10s));
    EXPECT_TRUE(sandbox_.wait_log("error handling stord message", 10s));
    store.set("config.tovrin.command", "tovrin,cli,stop_keepalive");
    EXPECT_TRUE(sandbox_.wait_log("external stop_keepalive command received", 10s));
    EXPECT_TRUE(daemon.running());

    store.stop();
    EXPECT_EQ(daemon.wait_exit(10s), 1);
    EXPECT_EQ(sandbox_.daemon_stderr().find("Sanitizer"), std::string::npos);
}

}  // namespace
