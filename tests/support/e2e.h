#pragma once

// Real processes: the stord and tovrin-sandbox programs in a private root.

#include <sys/types.h>

#include <chrono>
#include <functional>

#include "support/test_inst.h"

using namespace std::chrono_literals;

// Polls pred until it holds; false when timeout passes first.
bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout = 15s);

// What /proc says of a process: its open descriptors, its resident KiB.
int open_fd_count(pid_t pid);
long rss_kib(pid_t pid);

// A program started with fork and exec, its output appended to a file. The
// object owns it: one still running when the object goes is killed.
class child_process {
  public:
    child_process(const strings &argv, const std::string &output);
    child_process(const child_process &) = delete;
    ~child_process();

    pid_t pid() const { return pid_; }
    // The exit status, or 128 + the signal; nullopt while it runs past timeout.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout = 15s);

  private:
    pid_t pid_;
    std::optional<int> status_;
};

// The real stord and tovrin-sandbox in a private root. What the daemon
// published is read from the store's journal, what it logged from its log.
struct e2e_sandbox {
    // Starts stord on the root's socket, unless the test plays the store.
    explicit e2e_sandbox(bool with_store = true);
    // Writes the configuration and starts the daemon on it, through the
    // wrapper command when one is given.
    void start(const std::string &config, strings wrapper = {});
    // The states published for conn, in order.
    strings statuses(const std::string &conn) const;
    bool wait_status(const std::string &conn, const std::string &state,
                     std::chrono::milliseconds timeout = 15s) const;
    std::string log() const { return root.read_file("var/log/tovrin.log"); }
    bool wait_log(const std::string &text, std::chrono::milliseconds timeout = 15s) const {
        return wait_until([&] { return log().find(text) != std::string::npos; }, timeout);
    }
    // Sets a store key as another service of the appliance would.
    void set(const std::string &key, const std::string &value) const;
    // Ends the store: the daemon must follow with status 1, its pid file
    // gone, nothing on its standard error.
    void stop_store();

    temp_dir root;
    std::optional<child_process> store, daemon;
};
