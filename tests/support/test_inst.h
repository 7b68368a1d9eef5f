#pragma once

// What the tests share: a private directory, the log captured in memory, one
// planned allocation failure, and an instance whose store the test plays.

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "config/fixup.h"
#include "config/load.h"
#include "daemon/log.h"
#include "daemon/paths.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"

using strings = std::vector<std::string>;

// The content of the file at path, "" when it is missing.
std::string read_file(const std::string &path);

// A private directory under $TMPDIR (or /tmp), removed with everything in it
// when the object goes.
class temp_dir {
  public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;

    const std::string &path() const { return path_; }
    std::string file(const std::string &rel) const { return path_ + "/" + rel; }
    bool exists(const std::string &rel) const { return std::filesystem::exists(file(rel)); }
    // Replaces rel, creating its parent directories; throws on failure.
    void write_file(const std::string &rel, const std::string &content) const;
    // The content of rel, "" when it is missing.
    std::string read_file(const std::string &rel) const { return ::read_file(file(rel)); }

  private:
    std::string path_;
};

// The words with separator between them.
inline std::string join(const strings &words, const char *separator = " ") {
    std::string out;
    for (const std::string &w : words)
        out += (&w == &words.front() ? "" : separator) + w;
    return out;
}

// text with every from replaced by to.
std::string replaced(std::string text, const std::string &from, const std::string &to);

// The content of a file of the suite (a golden file), by its path under tests/.
inline std::string test_file(const std::string &rel) {
    return read_file(TOVRIN_TEST_DIR "/" + rel);
}

struct log_record {
    int priority;
    std::string message;
    bool operator==(const log_record &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const log_record &record) {
    return out << record.priority << " \"" << record.message << "\"";
}

// Routes tovrin_log into memory for as long as it lives, so tests can assert
// messages and priorities byte for byte.
struct log_capture {
    // Captures messages up to priority (info: what the daemon writes).
    explicit log_capture(int priority = TOVRIN_LOG_INFO);
    strings messages() const;

    std::vector<log_record> records;
    tovrin_log_setup setup;
};

// The test binaries' allocation function fails once, on request, so tests
// can prove that code survives any single allocation failure: the failure
// comes after `succeeding` more allocations. Tests run on one thread.
void allocation_fail_after(long succeeding);
// Cancels a planned failure; true when it had happened.
bool allocation_failure_happened();

// An instance initialised as start-up does it, in a private root, with its
// store link on one end of a socket pair; the test plays the store on the
// other end. Members go in this order so that the instance (and its event
// base) outlives nothing it points at.
struct test_inst {
    test_inst();
    // ... with config loaded and in force; throws when it does not load.
    explicit test_inst(const std::string &config);

    void write_config(const std::string &text) const {
        root.write_file("etc/config/tovrin.conf", text);
    }
    // Loads the configuration file and puts it into force, as start-up does.
    int load() { return tovrin_config_load(&inst, tovrin_config_move); }
    // Runs the loop until a turn passes with no message queued before or
    // after it; false when messages still come after 1,000 turns.
    bool dispatch();
    // Queues a message from the daemon to the conn in force named name.
    void deliver(const std::string &name, int type) {
        tovrin_conn_deliver_message(&inst, nullptr, conn(name), type);
    }
    tovrin_conn *conn(const std::string &name) { return inst.conns.find(name); }

    temp_dir root;
    tovrin_paths paths;
    unique_fd store_end;
    unique_fd daemon_end;
    tovrin_inst inst;
};

// Real processes: the stord and tovrin-sandbox programs in a private root.

using namespace std::chrono_literals;

// How long an end-to-end test waits for an event before it gives up: enough
// for a machine ten times slower than the ones the suite was written on.
// Every bound is multiplied by TOVRIN_TEST_TIME_SCALE (a number, 1 unless
// set) for slower hosts still.
constexpr std::chrono::milliseconds E2E_WAIT = 60s;
std::chrono::milliseconds scaled(std::chrono::milliseconds bound);

// Polls pred until it holds; false when the scaled timeout passes first.
bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout = E2E_WAIT);

// What /proc says of a process: its open descriptors; a size in KiB from its
// status ("VmRSS", "VmSize"), -1 when not found.
int open_fd_count(pid_t pid);
long status_kib(pid_t pid, const std::string &field);

// The least a process held over a window of time (scaled), and the most
// memory, sampled as often as wait_until polls: one sample would judge a
// passing moment.
struct held_range {
    int fds_least;
    long rss_least, rss_most;
};
held_range held_over(pid_t pid, std::chrono::milliseconds window);

// A program started with fork and exec, its output appended to a file. The
// object owns it: one still running when the object goes is killed.
class child_process {
  public:
    child_process(const strings &argv, const std::string &output);
    child_process(const child_process &) = delete;
    ~child_process();

    pid_t pid() const { return pid_; }
    // The exit status, or 128 + the signal; nullopt while it runs past timeout.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout = E2E_WAIT);

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
                     std::chrono::milliseconds timeout = E2E_WAIT) const;
    std::string log() const { return root.read_file("var/log/tovrin.log"); }
    bool wait_log(const std::string &text, std::chrono::milliseconds timeout = E2E_WAIT) const {
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
