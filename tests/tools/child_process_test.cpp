// The process and directory helpers every end-to-end test stands on.

#include "support/child_process.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "support/temp_dir.h"

namespace {

using namespace std::chrono_literals;

child_process start_sh(const std::string &script, const std::string &out = "",
                       const std::string &err = "") {
    return child_process::start({"/bin/sh", "-c", script}, out, err);
}

TEST(child_process, reports_exit_codes_and_signals) {
    struct {
        std::string script;
        int status;
    } cases[] = {
        {"exit 0", 0},
        {"exit 3", 3},
        {"kill -TERM $$", 128 + SIGTERM},
        {"kill -KILL $$", 128 + SIGKILL},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.script);
        child_process child = start_sh(c.script);
        EXPECT_EQ(child.wait_exit(10s), c.status);
        EXPECT_FALSE(child.running());
        // Reaped once; asking again gives the same answer.
        EXPECT_EQ(child.wait_exit(0ms), c.status);
    }
}

TEST(child_process, wait_exit_times_out_on_a_running_child_and_kill_ends_it) {
    child_process child = start_sh("exec sleep 30");
    EXPECT_TRUE(child.running());
    EXPECT_EQ(child.wait_exit(20ms), std::nullopt);
    child.kill(SIGKILL);
    EXPECT_EQ(child.wait_exit(10s), 128 + SIGKILL);
    EXPECT_FALSE(child.running());
    child.kill(SIGKILL);  // reaped: no signal goes to a pid that may be reused
}

TEST(child_process, appends_output_to_the_given_files) {
    temp_dir dir;
    for (int i = 0; i < 2; i++) {
        child_process child = start_sh("echo out; echo err >&2", dir.file("out"), dir.file("err"));
        ASSERT_EQ(child.wait_exit(10s), 0);
    }
    EXPECT_EQ(dir.read_file("out"), "out\nout\n");
    EXPECT_EQ(dir.read_file("err"), "err\nerr\n");
}

TEST(child_process, passes_arguments_without_a_shell) {
    temp_dir dir;
    child_process child = child_process::start({"/bin/echo", "a b", "$HOME", "*"}, dir.file("out"));
    ASSERT_EQ(child.wait_exit(10s), 0);
    EXPECT_EQ(dir.read_file("out"), "a b $HOME *\n");
}

TEST(child_process, start_throws_when_the_program_cannot_run) {
    temp_dir dir;
    try {
        child_process::start({dir.file("no-such-program")});
        FAIL() << "start did not throw";
    } catch (const std::runtime_error &e) {
        EXPECT_NE(std::string(e.what()).find("No such file or directory"), std::string::npos)
            << e.what();
    }
    EXPECT_THROW(child_process::start({"/bin/true"}, dir.file("missing-dir/out")),
                 std::runtime_error);
}

TEST(child_process, destruction_kills_and_reaps_and_a_move_hands_over) {
    pid_t pid;
    {
        child_process first = start_sh("exec sleep 30");
        pid = first.pid();
        child_process second = std::move(first);
        // The moved-from object owns nothing and must not kill on its way out.
        EXPECT_EQ(first.pid(), -1);
        EXPECT_TRUE(second.running());
    }
    // Reaped, not a zombie: the pid is gone.
    EXPECT_EQ(::kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST(wait_until, returns_the_last_result) {
    int calls = 0;
    EXPECT_TRUE(wait_until([&] { return ++calls == 3; }, 10s, 1ms));
    EXPECT_EQ(calls, 3);
    calls = 0;
    EXPECT_FALSE(wait_until([&] { return ++calls < 0; }, 20ms, 1ms));
    EXPECT_GE(calls, 2);
}

TEST(temp_dir, files_round_trip_and_everything_goes_with_it) {
    std::string path;
    {
        temp_dir dir;
        path = dir.path();
        EXPECT_FALSE(dir.exists("a/b/c.txt"));
        EXPECT_EQ(dir.read_file("a/b/c.txt"), "");
        dir.write_file("a/b/c.txt", std::string("x\0y\n", 4));
        EXPECT_TRUE(dir.exists("a/b/c.txt"));
        EXPECT_EQ(dir.read_file("a/b/c.txt"), std::string("x\0y\n", 4));
        dir.write_file("a/b/c.txt", "shorter");
        EXPECT_EQ(dir.read_file("a/b/c.txt"), "shorter");
        dir.make_dirs("d/e");
        EXPECT_TRUE(dir.exists("d/e"));
        EXPECT_EQ(dir.file("d/e"), path + "/d/e");
    }
    temp_dir probe;
    EXPECT_NE(probe.path(), path);
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
