#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/temp_dir.h"

// tovrin-sandbox in a private root: paths, the log file and the pid file as a
// test sees them from outside.
class sandbox {
  public:
    explicit sandbox(const temp_dir &root) : root_(root) {}

    // Starts tovrin-sandbox ROOT; its standard error goes to ROOT/daemon.stderr.
    child_process start() const;

    std::string store_socket() const { return root_.file("var/run/stord.sock"); }
    std::string pid_file() const { return root_.file("var/run/tovrin.pid"); }
    std::string log_file() const { return root_.file("var/log/tovrin.log"); }

    // The message part of every log line, in order.
    std::vector<std::string> log_messages() const;
    // The priority name log4c wrote on the first line carrying message.
    std::string log_priority(const std::string &message) const;
    bool wait_log(const std::string &message, std::chrono::milliseconds timeout) const;
    // The pid written in the pid file, if there is one.
    std::optional<pid_t> pidfile_pid() const;
    // What the daemon wrote on standard error (sanitizer reports land here).
    std::string daemon_stderr() const { return root_.read_file("daemon.stderr"); }

  private:
    const temp_dir &root_;
};
