#include "daemon/child_env.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "platform/spawn.h"
#include "platform/unique_fd.h"

namespace {

// Restores an environment variable when the test ends.
class env_guard {
  public:
    explicit env_guard(const char *name) : name_(name) {
        const char *value = getenv(name);
        if (value != nullptr)
            saved_ = value;
    }
    ~env_guard() {
        if (saved_)
            setenv(name_, saved_->c_str(), 1);
        else
            unsetenv(name_);
    }

  private:
    const char *name_;
    std::optional<std::string> saved_;
};

// Runs a program the way the daemon runs commands and returns its stdout.
std::string child_output(const char *program, std::vector<const char *> args) {
    std::vector<char *> argv;
    for (const char *arg : args)
        argv.push_back(const_cast<char *>(arg));
    argv.push_back(nullptr);
    int out_fd = -1, err_fd = -1;
    pid_t pid = veltrane_proc_execp_nowait_fds(program, argv.data(), nullptr, &out_fd, &err_fd);
    EXPECT_GT(pid, 0);
    if (pid <= 0)
        return "";
    unique_fd out(out_fd), err(err_fd);
    std::string text;
    for (;;) {
        pollfd p{out.get(), POLLIN, 0};
        if (poll(&p, 1, 10000) <= 0)
            break;
        char buf[512];
        ssize_t n = read(out.get(), buf, sizeof buf);
        if (n <= 0)
            break;
        text.append(buf, static_cast<size_t>(n));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return text;
}

TEST(ChildEnv, ChildrenSeeTheHelpersDirAndTheMarker) {
    env_guard path("PATH"), marker("RUNNING_UNDER_TOVRIN");
    setenv("PATH", "/usr/bin:/bin", 1);
    unsetenv("RUNNING_UNDER_TOVRIN");

    tovrin_child_env_extend();
    EXPECT_STREQ(getenv("PATH"), "/usr/bin:/bin:/bin/tovrin_helpers");
    EXPECT_EQ(child_output("sh", {"sh", "-c", "echo \"$PATH|$RUNNING_UNDER_TOVRIN\""}),
              "/usr/bin:/bin:/bin/tovrin_helpers|yes\n");
}

TEST(ChildEnv, WithoutPathTheSystemDefaultIsExtended) {
    env_guard path("PATH"), marker("RUNNING_UNDER_TOVRIN");
    unsetenv("PATH");
    tovrin_child_env_extend();
    std::string extended = getenv("PATH");
    const std::string suffix = ":/bin/tovrin_helpers";
    ASSERT_GT(extended.size(), suffix.size());
    EXPECT_EQ(extended.substr(extended.size() - suffix.size()), suffix);
    // The default must still find ordinary programs.
    EXPECT_NE(extended.find("/bin"), std::string::npos);
    EXPECT_EQ(child_output("sh", {"sh", "-c", "echo $RUNNING_UNDER_TOVRIN"}), "yes\n");
}

}  // namespace
