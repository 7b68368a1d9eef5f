#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/child_process.h"

// A real stord on a private socket, for end-to-end tests. It journals every
// frame it receives, refused ones included (see stord --journal), so a test
// can check what a client sent and in which order. Journal lines start with
// the connection number; the harness makes no connection of its own while
// starting, so the first client a test connects is connection 1, and every
// get, set and wait_value below opens a connection of its own and takes the
// next number.
class stord_harness {
  public:
    // Starts TOVRIN_STORD_BIN with --socket socket_path --journal
    // journal_path (stdout into journal_path + ".stdout", stderr into
    // journal_path + ".stderr") and returns once the socket accepts
    // connections. Fails the test with ADD_FAILURE and throws
    // std::runtime_error when that does not happen within 10 s.
    stord_harness(const std::string &socket_path, const std::string &journal_path);
    // stop() if still running.
    ~stord_harness();
    stord_harness(const stord_harness &) = delete;
    stord_harness &operator=(const stord_harness &) = delete;

    // SIGTERM, then waits; EXPECTs exit status 0 (a sanitizer report gives
    // 86). Does nothing once stopped.
    void stop();
    // Ends the store with SIGKILL, as a crash would: its socket file stays
    // and its exit status is not judged.
    void kill();
    // False once stop() or kill() ran or the store ended on its own.
    bool running();

    std::optional<std::string> get(const std::string &key);
    // Returns once the store has applied the set.
    void set(const std::string &key, const std::string &value, int flag = 1);
    // True once key holds value, as a subscriber sees it (the value up to its
    // first CR or LF), false after timeout.
    bool wait_value(const std::string &key, const std::string &value,
                    std::chrono::milliseconds timeout);

    // The journal's complete lines so far.
    std::vector<std::string> journal() const;
    bool wait_journal(const std::function<bool(const std::vector<std::string> &)> &pred,
                      std::chrono::milliseconds timeout) const;

    const std::string &socket_path() const { return socket_path_; }
    const std::string &journal_path() const { return journal_path_; }
    // What stord wrote on stderr so far (malformed requests, dropped clients).
    std::string stderr_text() const;
    // The store's process id, -1 once stopped.
    pid_t pid() const { return process_ ? process_->pid() : -1; }

  private:
    std::string socket_path_;
    std::string journal_path_;
    std::optional<child_process> process_;
};
