#include "platform/spawn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "platform/platform_test_util.h"
#include "platform/unique_fd.h"

namespace {

using platform_test::child_reap;
using platform_test::fds_open;
using platform_test::scratch_dir;
using platform_test::wait_until;

// A child started through the function under test. Whatever it started is
// killed and the child reaped when the object goes, so no test leaves a
// process behind.
struct spawned {
    pid_t pid = -1;
    unique_fd out;
    unique_fd err;

    spawned() = default;
    spawned(const spawned &) = delete;
    spawned &operator=(const spawned &) = delete;
    ~spawned() {
        if (pid > 0) {
            killpg(pid, SIGKILL);
            child_reap(pid);
        }
    }

    // Reaps the child and returns its wait status (-1 if it did not end).
    int reap() {
        int status = child_reap(pid);
        if (status != -1)
            pid = -1;
        return status;
    }
};

// Runs args[0] with args the way the daemon runs its commands.
void spawn_run(std::initializer_list<const char *> args, spawned *child) {
    std::vector<char *> argv;
    for (const char *arg : args)
        argv.push_back(const_cast<char *>(arg));
    argv.push_back(nullptr);
    int out_fd = -1, err_fd = -1;
    child->pid = veltrane_proc_execp_nowait_fds(argv[0], argv.data(), nullptr, &out_fd, &err_fd);
    if (child->pid > 0) {
        child->out.reset(out_fd);
        child->err.reset(err_fd);
    }
}

struct output {
    std::string out;
    std::string err;
    bool eof = false;  // both pipes reached end-of-file before the deadline
};

// Reads both pipes until end-of-file on each or five seconds pass. The read
// ends do not block, so a read with nothing to read reports EAGAIN.
output output_drain(spawned *child) {
    output result;
    pollfd fds[2] = {{child->out.get(), POLLIN, 0}, {child->err.get(), POLLIN, 0}};
    std::string *texts[2] = {&result.out, &result.err};
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while ((fds[0].fd >= 0 || fds[1].fd >= 0) && std::chrono::steady_clock::now() < deadline) {
        if (poll(fds, 2, 100) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; i++) {
            if (fds[i].fd < 0 || fds[i].revents == 0)
                continue;
            char buf[256];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0)
                texts[i]->append(buf, static_cast<size_t>(n));
            else if (n == 0 || errno != EAGAIN)
                fds[i].fd = -1;
        }
    }
    result.eof = fds[0].fd < 0 && fds[1].fd < 0;
    return result;
}

// Reads one line from the child's stdout, waiting at most five seconds.
std::string line_read(spawned *child) {
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (line.empty() || line.back() != '\n') {
        if (std::chrono::steady_clock::now() > deadline)
            return line;
        pollfd p{child->out.get(), POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        char c;
        if (read(child->out.get(), &c, 1) != 1)
            return line;
        line += c;
    }
    return line;
}

// Gone, or a zombie waiting for a parent that is not this process.
bool process_ended(pid_t pid) {
    std::string stat = platform_test::file_read("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return stat.empty() || (paren != std::string::npos && stat.compare(paren, 4, ") Z ") == 0);
}

// Restores an environment variable when the test ends.
class env_guard {
  public:
    explicit env_guard(const char *name) : name_(name) {
        if (const char *value = getenv(name))
            saved_ = value;
    }
    ~env_guard() {
        if (saved_)
            setenv(name_, saved_->c_str(), 1);
        else
            unsetenv(name_);
    }
    env_guard(const env_guard &) = delete;
    env_guard &operator=(const env_guard &) = delete;

  private:
    const char *name_;
    std::optional<std::string> saved_;
};

// Sets a signal's disposition for the length of a test.
class signal_guard {
  public:
    signal_guard(int sig, void (*handler)(int)) : sig_(sig) {
        struct sigaction sa {};
        sa.sa_handler = handler;
        sigemptyset(&sa.sa_mask);
        sigaction(sig, &sa, &saved_);
    }
    ~signal_guard() { sigaction(sig_, &saved_, nullptr); }
    signal_guard(const signal_guard &) = delete;
    signal_guard &operator=(const signal_guard &) = delete;

  private:
    int sig_;
    struct sigaction saved_ {};
};

void handler_noop(int) {}

std::string script_write(const scratch_dir &dir, const char *name, const char *body, mode_t mode) {
    std::string path = dir.file(name);
    platform_test::file_write(path, body);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
}

TEST(Spawn, CapturesStdoutAndStderrSeparately) {
    spawned child;
    spawn_run({"sh", "-c", "echo out; echo err >&2; echo more"}, &child);
    ASSERT_GT(child.pid, 0);
    output o = output_drain(&child);
    // End-of-file on both pipes proves the parent kept no write end open.
    EXPECT_TRUE(o.eof);
    EXPECT_EQ(o.out, "out\nmore\n");
    EXPECT_EQ(o.err, "err\n");
    int status = child.reap();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Spawn, OutputWithNulBytesPassesIntact) {
    spawned child;
    spawn_run({"printf", "a\\000b\\377"}, &child);
    ASSERT_GT(child.pid, 0);
    output o = output_drain(&child);
    EXPECT_EQ(o.out, std::string("a\0b\xff", 4));
    EXPECT_EQ(o.err, "");
}

TEST(Spawn, ReadEndsAreNonBlockingAndCloseOnExec) {
    spawned child;
    spawn_run({"sleep", "30"}, &child);
    ASSERT_GT(child.pid, 0);
    for (int fd : {child.out.get(), child.err.get()}) {
        EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
        char c;
        EXPECT_EQ(read(fd, &c, 1), -1);
        EXPECT_EQ(errno, EAGAIN);
    }
}

TEST(Spawn, ChildStdinIsDevNull) {
    // Our own stdin becomes a pipe nobody writes to, so a child that
    // inherited it would show a pipe and its cat would wait for input.
    int feed[2];
    ASSERT_EQ(pipe2(feed, O_CLOEXEC), 0);
    unique_fd feed_read(feed[0]), feed_write(feed[1]);
    unique_fd saved_stdin(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    ASSERT_EQ(dup2(feed_read.get(), STDIN_FILENO), STDIN_FILENO);

    spawned child;
    spawn_run({"sh", "-c", "readlink /proc/self/fd/0; cat"}, &child);
    if (saved_stdin)
        dup2(saved_stdin.get(), STDIN_FILENO);
    else
        close(STDIN_FILENO);
    ASSERT_GT(child.pid, 0);
    output o = output_drain(&child);
    EXPECT_TRUE(o.eof);
    EXPECT_EQ(o.out, "/dev/null\n");
}

// The child's standard descriptors are wired as promised, and no pipe of
// another running child leaks into it.
TEST(Spawn, ChildHoldsOnlyItsOwnPipes) {
    spawned first, second;
    spawn_run({"sleep", "30"}, &first);
    spawn_run({"sleep", "30"}, &second);
    ASSERT_GT(first.pid, 0);
    ASSERT_GT(second.pid, 0);

    auto pipe_name = [](int fd) {
        struct stat st {};
        fstat(fd, &st);
        return "pipe:[" + std::to_string(st.st_ino) + "]";
    };
    const std::string proc_fd = "/proc/" + std::to_string(second.pid) + "/fd";
    // The program's own start-up opens and closes descriptors as we look;
    // one that vanishes was not inherited, so it is passed over.
    std::vector<std::string> targets;
    for (const auto &entry : std::filesystem::directory_iterator(proc_fd)) {
        std::error_code gone;
        std::filesystem::path target = std::filesystem::read_symlink(entry.path(), gone);
        if (!gone)
            targets.push_back(target.string());
    }
    auto target_of = [&](int fd) {
        return std::filesystem::read_symlink(proc_fd + "/" + std::to_string(fd)).string();
    };
    EXPECT_EQ(target_of(0), "/dev/null");
    EXPECT_EQ(target_of(1), pipe_name(second.out.get()));
    EXPECT_EQ(target_of(2), pipe_name(second.err.get()));
    for (const std::string &target : targets) {
        EXPECT_NE(target, pipe_name(first.out.get()));
        EXPECT_NE(target, pipe_name(first.err.get()));
    }
}

TEST(Spawn, ChildLeadsItsOwnProcessGroup) {
    spawned child;
    spawn_run({"sh", "-c", "sleep 30 & echo $!; wait"}, &child);
    ASSERT_GT(child.pid, 0);
    EXPECT_EQ(getpgid(child.pid), child.pid);
    EXPECT_NE(getpgid(child.pid), getpgrp());

    std::string line = line_read(&child);
    ASSERT_FALSE(line.empty());
    const pid_t grandchild = std::stoi(line);
    EXPECT_EQ(getpgid(grandchild), child.pid);

    // Signalling the group ends the whole tree the command started.
    ASSERT_EQ(killpg(child.pid, SIGTERM), 0);
    int status = child.reap();
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
    EXPECT_TRUE(wait_until([&] { return process_ended(grandchild); }));
    if (!process_ended(grandchild))
        kill(grandchild, SIGKILL);
}

// The signal set named field ("SigIgn", "SigBlk") in a /proc status text;
// all ones when it is missing, so a missing line cannot pass.
uint64_t status_mask(const std::string &status, const std::string &field) {
    size_t at = status.find(field + ":\t");
    if (at == std::string::npos)
        return ~uint64_t{0};
    return std::stoull(status.substr(at + field.size() + 2, 16), nullptr, 16);
}

// The signals the C library keeps for itself: sigaction() refuses them, so
// no caller can have changed them and the library alone decides what the
// child gets.
uint64_t signals_reserved() {
    uint64_t mask = 0;
    sigset_t probe;
    sigemptyset(&probe);
    for (int sig = 1; sig <= 64 && sig < NSIG; sig++) {
        if (sigaddset(&probe, sig) != 0)
            mask |= uint64_t{1} << (sig - 1);
    }
    return mask;
}

// Dispositions the caller ignores and signals it blocks do not reach the
// child; grep runs directly, so no shell can reset anything on the way.
TEST(Spawn, ChildStartsWithDefaultSignalsAndAnEmptyMask) {
    signal_guard pipe_ignored(SIGPIPE, SIG_IGN);
    signal_guard hup_ignored(SIGHUP, SIG_IGN);
    signal_guard rt_ignored(SIGRTMIN + 3, SIG_IGN);
    signal_guard usr1_caught(SIGUSR1, handler_noop);
    sigset_t blocked, saved;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    sigaddset(&blocked, SIGCHLD);
    ASSERT_EQ(sigprocmask(SIG_BLOCK, &blocked, &saved), 0);

    spawned child;
    spawn_run({"grep", "-E", "^Sig(Blk|Ign):", "/proc/self/status"}, &child);
    sigprocmask(SIG_SETMASK, &saved, nullptr);
    ASSERT_GT(child.pid, 0);
    output o = output_drain(&child);
    EXPECT_EQ(status_mask(o.out, "SigBlk"), 0u) << o.out;
    EXPECT_EQ(status_mask(o.out, "SigIgn") & ~signals_reserved(), 0u) << o.out;
}

TEST(Spawn, FindsProgramsOnTheCurrentPath) {
    scratch_dir first, second;
    // Like execvp(): a match that cannot be executed is passed over.
    script_write(first, "tovrin-probe", "#!/bin/sh\necho wrong\n", 0644);
    script_write(second, "tovrin-probe", "#!/bin/sh\necho \"found $1\"\n", 0755);
    env_guard path("PATH");
    setenv("PATH", (first.path() + ":" + second.path()).c_str(), 1);

    spawned child;
    spawn_run({"tovrin-probe", "it"}, &child);
    ASSERT_GT(child.pid, 0);
    EXPECT_EQ(output_drain(&child).out, "found it\n");
}

// A program that cannot be started leaves no child, no zombie and no
// descriptor behind.
TEST(Spawn, FailureIsReportedAndLeavesNothingBehind) {
    scratch_dir dir;
    const std::string plain = script_write(dir, "plain", "#!/bin/sh\necho ran\n", 0644);
    const std::string no_interpreter =
        script_write(dir, "broken", "#!/nonexistent/interpreter\n", 0755);
    env_guard path("PATH");
    setenv("PATH", dir.path().c_str(), 1);

    struct failure_case {
        const char *name;
        const char *file;
        int error;
    };
    const failure_case cases[] = {
        {"not on PATH", "tovrin-no-such-program", ENOENT},
        {"not executable, on PATH", "plain", EACCES},
        {"not executable, by path", plain.c_str(), EACCES},
        {"missing, by path", "/nonexistent/program", ENOENT},
        {"missing interpreter", no_interpreter.c_str(), ENOENT},
        {"directory", dir.path().c_str(), EACCES},
    };
    for (const failure_case &c : cases) {
        const auto before = fds_open();
        char *argv[] = {const_cast<char *>(c.file), nullptr};
        int out_fd = -5, err_fd = -6;
        pid_t pid = veltrane_proc_execp_nowait_fds(c.file, argv, nullptr, &out_fd, &err_fd);
        int error = errno;
        EXPECT_EQ(pid, -1) << c.name;
        EXPECT_EQ(error, c.error) << c.name;
        EXPECT_EQ(out_fd, -5) << c.name;
        EXPECT_EQ(err_fd, -6) << c.name;
        EXPECT_EQ(fds_open(), before) << c.name;
        // Neither a running copy of this process nor a zombie is left.
        int status;
        pid_t found = waitpid(-1, &status, WNOHANG);
        EXPECT_TRUE(found == 0 || (found == -1 && errno == ECHILD)) << c.name << ": " << found;
        if (found > 0)
            kill(found, SIGKILL);
    }
}

TEST(Spawn, BadArgumentsAreRefused) {
    char *argv[] = {const_cast<char *>("true"), nullptr};
    int out_fd = -5, err_fd = -6, marker = 0;
    const auto before = fds_open();
    EXPECT_EQ(veltrane_proc_execp_nowait_fds(nullptr, argv, nullptr, &out_fd, &err_fd), -1);
    EXPECT_EQ(veltrane_proc_execp_nowait_fds("", argv, nullptr, &out_fd, &err_fd), -1);
    EXPECT_EQ(veltrane_proc_execp_nowait_fds("true", nullptr, nullptr, &out_fd, &err_fd), -1);
    EXPECT_EQ(veltrane_proc_execp_nowait_fds("true", argv, &marker, &out_fd, &err_fd), -1);
    EXPECT_EQ(veltrane_proc_execp_nowait_fds("true", argv, nullptr, nullptr, &err_fd), -1);
    EXPECT_EQ(veltrane_proc_execp_nowait_fds("true", argv, nullptr, &out_fd, nullptr), -1);
    EXPECT_EQ(out_fd, -5);
    EXPECT_EQ(err_fd, -6);
    EXPECT_EQ(fds_open(), before);
    int status;
    EXPECT_LE(waitpid(-1, &status, WNOHANG), 0);
}

// A daemon that closed its standard descriptors gets pipes at 0, 1 and 2;
// the child must still be wired correctly.
TEST(Spawn, WorksWithTheCallersStdioClosed) {
    int saved[3];
    for (int fd = 0; fd < 3; fd++)
        saved[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 10);
    for (int fd = 0; fd < 3; fd++)
        close(fd);

    spawned child;
    spawn_run({"sh", "-c", "echo out; echo err >&2; readlink /proc/self/fd/0 >&2"}, &child);
    // Move the read ends out of the way before the stdio comes back.
    for (unique_fd *end : {&child.out, &child.err}) {
        if (*end && end->get() < 3)
            end->reset(fcntl(end->get(), F_DUPFD_CLOEXEC, 3));
    }
    for (int fd = 0; fd < 3; fd++) {
        if (saved[fd] >= 0) {
            dup2(saved[fd], fd);
            close(saved[fd]);
        }
    }

    ASSERT_GT(child.pid, 0);
    output o = output_drain(&child);
    EXPECT_EQ(o.out, "out\n");
    EXPECT_EQ(o.err, "err\n/dev/null\n");
}

}  // namespace
