#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// A child started with fork and exec (no shell). The object owns it: if it
// is still running when the object goes, it is killed with SIGKILL and
// reaped, so no test leaves processes behind.
class child_process {
  public:
    // argv[0] is the program path. stdout and stderr are appended to the given
    // files when not empty, else inherited. Throws std::runtime_error when the
    // program cannot be started (the exec failure's cause included).
    static child_process start(const std::vector<std::string> &argv,
                               const std::string &stdout_path = "",
                               const std::string &stderr_path = "");

    child_process(child_process &&other) noexcept;
    child_process &operator=(child_process &&other) noexcept;
    child_process(const child_process &) = delete;
    child_process &operator=(const child_process &) = delete;
    ~child_process();

    pid_t pid() const { return pid_; }
    // True while the child is not yet reaped and waitpid(WNOHANG) finds it
    // alive; reaps it otherwise.
    bool running();
    // Exit code, or 128 + signal when a signal ended it; nullopt when it did
    // not end in time. Once reaped, returns the same status every time.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout);
    // Sends sig unless the child is already reaped.
    void kill(int sig);

  private:
    explicit child_process(pid_t pid) : pid_(pid) {}
    // Reaps without blocking; true once the status is known.
    bool reap();
    void release();

    pid_t pid_ = -1;
    std::optional<int> status_;
};

// Polls pred every step until it returns true or the timeout passes; returns
// the last result.
bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout,
                std::chrono::milliseconds step = std::chrono::milliseconds(10));
