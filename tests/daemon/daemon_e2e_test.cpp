#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "support/child_process.h"
#include "support/sandbox.h"
#include "support/stord_harness.h"
#include "support/temp_dir.h"

namespace {

using namespace std::chrono_literals;

const char refusal[] = "Another tovrin instance is running, exiting...";

class DaemonProcess : public ::testing::Test {
  protected:
    void SetUp() override { root_.make_dirs("var/run"); }

    // A daemon that logged no sanitizer report and exited as expected.
    void expect_exit(child_process &daemon, int status, std::chrono::milliseconds timeout) {
        std::optional<int> got = daemon.wait_exit(timeout);
        ASSERT_TRUE(got.has_value()) << "daemon did not exit";
        EXPECT_EQ(*got, status) << sandbox_.daemon_stderr();
        EXPECT_EQ(sandbox_.daemon_stderr().find("Sanitizer"), std::string::npos)
            << sandbox_.daemon_stderr();
    }

    temp_dir root_;
    sandbox sandbox_{root_};
};

TEST_F(DaemonProcess, RunsUntilTheStoreGoesAndRemovesItsPidFile) {
    stord_harness store(sandbox_.store_socket(), root_.file("journal"));
    child_process daemon = sandbox_.start();

    ASSERT_TRUE(sandbox_.wait_log("initialising", 10s));
    ASSERT_TRUE(wait_until([&] { return sandbox_.pidfile_pid() == daemon.pid(); }, 10s));
    EXPECT_EQ(sandbox_.log_priority("initialising"), "INFO");
    // There is no configuration file in the root.
    EXPECT_TRUE(sandbox_.wait_log(
        "config not initialized - fix config file and send a SIGHUP to reload", 10s));
    EXPECT_TRUE(daemon.running());

    // The link never reconnects: losing the store ends the daemon.
    store.stop();
    expect_exit(daemon, 1, 10s);
    EXPECT_FALSE(sandbox_.pidfile_pid().has_value());
}

TEST_F(DaemonProcess, SecondInstanceIsRefusedAndLeavesTheFirstPidFile) {
    stord_harness store(sandbox_.store_socket(), root_.file("journal"));
    child_process first = sandbox_.start();
    ASSERT_TRUE(wait_until([&] { return sandbox_.pidfile_pid() == first.pid(); }, 10s));

    child_process second = sandbox_.start();
    std::optional<int> status = second.wait_exit(10s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(*status, 255);
    EXPECT_TRUE(sandbox_.wait_log(refusal, 1s));
    EXPECT_EQ(sandbox_.log_priority(refusal), "FATAL");
    EXPECT_EQ(sandbox_.pidfile_pid(), first.pid());
    EXPECT_TRUE(first.running());

    store.stop();
    expect_exit(first, 1, 10s);
}

TEST_F(DaemonProcess, StalePidFileFromACrashDoesNotBlockAStart) {
    // The pid of a process that has ended and been reaped.
    child_process gone = child_process::start({"/bin/true"});
    ASSERT_TRUE(gone.wait_exit(5s).has_value());
    root_.write_file("var/run/tovrin.pid", std::to_string(gone.pid()) + "\n");

    stord_harness store(sandbox_.store_socket(), root_.file("journal"));
    child_process daemon = sandbox_.start();
    ASSERT_TRUE(wait_until([&] { return sandbox_.pidfile_pid() == daemon.pid(); }, 10s));
    EXPECT_TRUE(sandbox_.wait_log("initialising", 10s));
    store.stop();
    expect_exit(daemon, 1, 10s);
}

TEST_F(DaemonProcess, NoStoreListeningEndsStartUpWith255) {
    child_process daemon = sandbox_.start();
    // The daemon waits five seconds before it gives up.
    expect_exit(daemon, 255, 20s);
    std::vector<std::string> log = sandbox_.log_messages();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), "could not open stord socket");
    EXPECT_EQ(sandbox_.log_priority("could not open stord socket"), "FATAL");
    // The pid file was written before the store was tried, and released on exit.
    EXPECT_FALSE(sandbox_.pidfile_pid().has_value());
}

TEST_F(DaemonProcess, ConnectsToAPlainListeningSocket) {
    // Any listener will do for start-up; the daemon only needs the link.
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string path = sandbox_.store_socket();
    ASSERT_LT(path.size(), sizeof addr.sun_path);
    path.copy(addr.sun_path, path.size());
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(listener, 4), 0);

    child_process daemon = sandbox_.start();
    int peer = accept(listener, nullptr, nullptr);
    ASSERT_GE(peer, 0);
    ASSERT_TRUE(sandbox_.wait_log("initialising", 10s));
    EXPECT_TRUE(daemon.running());

    close(peer);
    expect_exit(daemon, 1, 10s);
    close(listener);
    EXPECT_FALSE(sandbox_.pidfile_pid().has_value());
}

TEST(SandboxUsage, RefusesAMissingRoot) {
    child_process daemon = child_process::start({TOVRIN_SANDBOX_BIN});
    EXPECT_EQ(daemon.wait_exit(5s), 2);
}

}  // namespace
