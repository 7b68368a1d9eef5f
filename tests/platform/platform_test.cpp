// The stand-in for the appliance's support library: pid file, spawning,
// store socket.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "platform/pidfile.h"
#include "platform/spawn.h"
#include "platform/store_socket.h"
#include "platform/unique_fd.h"
#include "support/temp_dir.h"

namespace {

std::string pid_line(pid_t pid) {
    return std::to_string(pid) + "\n";
}

// A pid file blocks only while another live process holds it; create
// replaces a stale one whole; clear removes only this process's own.
TEST(Pidfile, HeldOnlyByAnotherLiveProcess) {
    temp_dir dir;
    pid_t live = fork();
    ASSERT_GE(live, 0);
    if (live == 0) {
        pause();
        _exit(0);
    }
    pid_t dead = fork();
    if (dead == 0)
        _exit(0);
    waitpid(dead, nullptr, 0);
    const char *run = dir.path().c_str();
    const struct {
        std::string content;
        bool valid;
    } cases[] = {{"", true},
                 {"tovrin\n", true},
                 {std::to_string(live) + "x\n", true},
                 {"0\n", true},
                 {pid_line(dead), true},
                 {pid_line(getpid()), true},
                 {pid_line(live), false}};
    EXPECT_NE(veltrane_pidfile_valid(run, "tovrin"), 0);
    for (const auto &c : cases) {
        dir.write_file("tovrin.pid", c.content);
        EXPECT_EQ(veltrane_pidfile_valid(run, "tovrin") != 0, c.valid) << c.content;
        EXPECT_EQ(veltrane_pidfile_clear(run, "tovrin"), c.content == pid_line(getpid()) ? 0 : -1);
    }
    EXPECT_EQ(dir.read_file("tovrin.pid"), pid_line(live));
    EXPECT_EQ(veltrane_pidfile_valid(run, "other"), 1);
    dir.write_file("tovrin.pid", pid_line(dead) + "left over by a crash, longer than a pid\n");
    ASSERT_EQ(veltrane_pidfile_create(run, "tovrin"), 0);
    EXPECT_EQ(dir.read_file("tovrin.pid"), pid_line(getpid()));
    EXPECT_EQ(veltrane_pidfile_create(dir.file("missing").c_str(), "tovrin"), -1);
    kill(live, SIGKILL);
    waitpid(live, nullptr, 0);
}

// One child shows how it was started: its standard input, its signal
// dispositions and mask, its process group, found on PATH.
TEST(Spawn, ChildStartsAloneInItsGroupWithDefaultSignals) {
    temp_dir dir;
    dir.write_file("tovrin-probe",
                   "#!/bin/sh\nreadlink /proc/self/fd/0\necho err >&2\n"
                   "read -r _ _ _ _ group _ < /proc/$$/stat\n[ \"$group\" = $$ ] && echo leader\n"
                   "exec grep -E '^Sig(Blk|Ign):' /proc/self/status\n");
    chmod(dir.file("tovrin-probe").c_str(), 0755);
    std::string path = getenv("PATH");
    setenv("PATH", (dir.path() + ":" + path).c_str(), 1);
    signal(SIGHUP, SIG_IGN);
    sigset_t blocked, saved;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    sigprocmask(SIG_BLOCK, &blocked, &saved);
    char *argv[] = {const_cast<char *>("tovrin-probe"), nullptr};
    int out_fd = -1, err_fd = -1;
    pid_t pid = veltrane_proc_execp_nowait_fds("tovrin-probe", argv, nullptr, &out_fd, &err_fd);
    sigprocmask(SIG_SETMASK, &saved, nullptr);
    signal(SIGHUP, SIG_DFL);
    setenv("PATH", path.c_str(), 1);
    ASSERT_GT(pid, 0);
    unique_fd out(out_fd), err(err_fd);
    for (int fd : {out_fd, err_fd}) {
        EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    char buf[4096];
    ssize_t n = read(out_fd, buf, sizeof buf);
    std::string text(buf, n > 0 ? static_cast<size_t>(n) : 0);
    EXPECT_EQ(text.substr(0, 10), "/dev/null\n") << text;
    EXPECT_NE(text.find("SigBlk:\t0000000000000000\n"), std::string::npos) << text;
    // SIGHUP, ignored here, is back at its default in the child.
    size_t ignored = text.find("SigIgn:\t");
    ASSERT_NE(ignored, std::string::npos) << text;
    EXPECT_EQ(std::stoull(text.substr(ignored + 8, 16), nullptr, 16) & 1u, 0u) << text;
    EXPECT_NE(text.find("leader\n"), std::string::npos) << text;
    n = read(err_fd, buf, sizeof buf);
    EXPECT_EQ(std::string(buf, n > 0 ? static_cast<size_t>(n) : 0), "err\n");
}

TEST(Spawn, FailureLeavesNothingBehind) {
    char *argv[] = {const_cast<char *>("tovrin-no-such-program"), nullptr};
    int out_fd = 77, err_fd = 77;
    EXPECT_EQ(veltrane_proc_execp_nowait_fds(argv[0], argv, nullptr, &out_fd, &err_fd), -1);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(StoreSocket, ConnectsOrFailsWithoutTruncating) {
    temp_dir dir;
    unique_fd listener(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string path = dir.file("s");
    path.copy(addr.sun_path, sizeof addr.sun_path - 1);
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    int fd = -1;
    ASSERT_EQ(stord_multiple_start_unix(&fd, path.c_str()), 0);
    unique_fd connected(fd);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    fd = -1;
    EXPECT_NE(stord_multiple_start_unix(&fd, (path + std::string(200, 'x')).c_str()), 0);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_NE(stord_multiple_start_unix(&fd, dir.file("none").c_str()), 0);
    EXPECT_EQ(fd, -1);
}

}  // namespace
