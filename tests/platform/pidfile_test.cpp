#include "platform/pidfile.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>

#include "platform/platform_test_util.h"

extern char **environ;

namespace {

using platform_test::file_read;
using platform_test::file_write;
using platform_test::scratch_dir;

// A sleeping child started for its pid; killed and reaped when it goes or
// when end() is called, after which its pid names no live process.
class sleeping_child {
  public:
    sleeping_child() {
        char *argv[] = {const_cast<char *>("sleep"), const_cast<char *>("30"), nullptr};
        if (posix_spawnp(&pid_, "sleep", nullptr, nullptr, argv, environ) != 0)
            pid_ = -1;
        EXPECT_GT(pid_, 0) << "could not start sleep";
    }
    ~sleeping_child() { end(); }
    sleeping_child(const sleeping_child &) = delete;
    sleeping_child &operator=(const sleeping_child &) = delete;

    pid_t pid() const { return pid_; }
    void end() {
        if (pid_ <= 0 || ended_)
            return;
        kill(pid_, SIGKILL);
        EXPECT_NE(platform_test::child_reap(pid_), -1);
        ended_ = true;
    }

  private:
    pid_t pid_ = -1;
    bool ended_ = false;
};

std::string pid_line(pid_t pid) {
    return std::to_string(pid) + "\n";
}

struct valid_case {
    const char *name;
    std::optional<std::string> content;  // none: no pid file
    bool held;                           // another live process holds it
};

TEST(Pidfile, ValidUnlessAnotherLiveProcessHoldsTheFile) {
    sleeping_child live;
    sleeping_child dead;
    dead.end();
    const pid_t own = getpid();

    const valid_case cases[] = {
        {"no file", std::nullopt, false},
        {"empty", "", false},
        {"garbage", "tovrin\n", false},
        {"digits then garbage", std::to_string(live.pid()) + "x\n", false},
        {"two lines", pid_line(live.pid()) + pid_line(live.pid()), false},
        {"zero would be our own process group", "0\n", false},
        {"negative would be a process group", "-" + pid_line(live.pid()), false},
        {"minus one would be every process", "-1\n", false},
        {"larger than any pid", "99999999999999999999\n", false},
        {"oversized file", std::string(4096, '7'), false},
        {"dead process", pid_line(dead.pid()), false},
        {"this process", pid_line(own), false},
        {"live child", pid_line(live.pid()), true},
        {"live child without newline", std::to_string(live.pid()), true},
        {"pid 1", "1\n", true},
    };
    for (const valid_case &c : cases) {
        scratch_dir dir;
        if (c.content)
            file_write(dir.file("tovrin.pid"), *c.content);
        int valid = veltrane_pidfile_valid(dir.path().c_str(), "tovrin");
        EXPECT_EQ(valid == 0, c.held) << c.name << ": " << valid;
        // Checking never changes the file.
        if (c.content) {
            EXPECT_EQ(file_read(dir.file("tovrin.pid")), *c.content) << c.name;
        }
    }
}

// kill() answers EPERM for a live process of another user; that process
// still holds the file. Checked from a process without the right to signal
// the holder: this one when it is not root, else a child that drops to
// nobody.
TEST(Pidfile, AnotherUsersLiveProcessHoldsTheFile) {
    sleeping_child live;
    scratch_dir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    const pid_t holder = getuid() == 0 ? live.pid() : 1;
    file_write(dir.file("tovrin.pid"), pid_line(holder));
    ASSERT_EQ(chmod(dir.file("tovrin.pid").c_str(), 0644), 0);

    pid_t checker = fork();
    ASSERT_GE(checker, 0);
    if (checker == 0) {
        if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
            _exit(2);
        if (kill(holder, 0) == 0 || errno != EPERM)
            _exit(3);
        _exit(veltrane_pidfile_valid(dir.path().c_str(), "tovrin") == 0 ? 0 : 1);
    }
    int status = platform_test::child_reap(checker);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1: seen as free, 2: could not drop root, 3: no EPERM";
}

TEST(Pidfile, ValidLooksOnlyAtItsOwnName) {
    sleeping_child live;
    scratch_dir dir;
    file_write(dir.file("other.pid"), pid_line(live.pid()));
    file_write(dir.file("tovrin"), pid_line(live.pid()));
    EXPECT_NE(veltrane_pidfile_valid(dir.path().c_str(), "tovrin"), 0);
    EXPECT_EQ(veltrane_pidfile_valid(dir.path().c_str(), "other"), 0);
}

TEST(Pidfile, CreateWritesThePidAndNothingElse) {
    scratch_dir dir;
    ASSERT_EQ(veltrane_pidfile_create(dir.path().c_str(), "tovrin"), 0);
    EXPECT_EQ(file_read(dir.file("tovrin.pid")), pid_line(getpid()));
    struct stat st {};
    ASSERT_EQ(stat(dir.file("tovrin.pid").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    // No temporary file is left beside it.
    size_t entries = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(dir.path()))
        entries++;
    EXPECT_EQ(entries, 1u);
    EXPECT_NE(veltrane_pidfile_valid(dir.path().c_str(), "tovrin"), 0);
}

// A reader racing with create() must see the old file or the new one, never
// a truncated one: the file is replaced, not rewritten in place.
TEST(Pidfile, CreateReplacesAStaleFileWithANewOne) {
    sleeping_child dead;
    dead.end();
    scratch_dir dir;
    const std::string path = dir.file("tovrin.pid");
    file_write(path, pid_line(dead.pid()) + "left over by a crash, and longer than a pid\n");
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);

    ASSERT_EQ(veltrane_pidfile_create(dir.path().c_str(), "tovrin"), 0);
    EXPECT_EQ(file_read(path), pid_line(getpid()));
    struct stat after {};
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino);
}

TEST(Pidfile, CreateFailsWithoutTheRunDirectory) {
    scratch_dir dir;
    const std::string missing = dir.file("no-such-dir");
    EXPECT_EQ(veltrane_pidfile_create(missing.c_str(), "tovrin"), -1);
    EXPECT_FALSE(std::filesystem::exists(missing));
    EXPECT_EQ(veltrane_pidfile_create(nullptr, "tovrin"), -1);
    EXPECT_EQ(veltrane_pidfile_create(dir.path().c_str(), ""), -1);
}

TEST(Pidfile, ClearRemovesOnlyThisProcesssFile) {
    sleeping_child live;
    struct clear_case {
        const char *name;
        std::optional<std::string> content;
        int expected;
    };
    const clear_case cases[] = {
        {"own file", pid_line(getpid()), 0},
        {"another live process", pid_line(live.pid()), -1},
        {"garbage", "tovrin\n", -1},
        {"no file", std::nullopt, -1},
    };
    for (const clear_case &c : cases) {
        scratch_dir dir;
        const std::string path = dir.file("tovrin.pid");
        if (c.content)
            file_write(path, *c.content);
        EXPECT_EQ(veltrane_pidfile_clear(dir.path().c_str(), "tovrin"), c.expected) << c.name;
        if (c.expected == 0 || !c.content) {
            EXPECT_FALSE(std::filesystem::exists(path)) << c.name;
        } else {
            EXPECT_EQ(file_read(path), *c.content) << c.name;
        }
    }
}

// The daemon's life: check, create, a second instance is refused, clear.
TEST(Pidfile, CreatedFileBlocksAnotherInstanceUntilCleared) {
    scratch_dir dir;
    ASSERT_EQ(veltrane_pidfile_create(dir.path().c_str(), "tovrin"), 0);
    // Another process sees this one holding the file.
    pid_t checker = fork();
    ASSERT_GE(checker, 0);
    if (checker == 0)
        _exit(veltrane_pidfile_valid(dir.path().c_str(), "tovrin") == 0 ? 0 : 1);
    int status = platform_test::child_reap(checker);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the other process did not see the file held";

    EXPECT_EQ(veltrane_pidfile_clear(dir.path().c_str(), "tovrin"), 0);
    EXPECT_FALSE(std::filesystem::exists(dir.file("tovrin.pid")));
}

}  // namespace
