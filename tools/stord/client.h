#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "stord/frame.h"
#include "stord/stord_fd.h"

// What the store knows of a client's session (tool-only request 29).
struct stord_session {
    std::string state;              // "connected", "gone" or "unknown"
    long long since = 0;            // seconds since the epoch; 0 when unknown
    std::vector<std::string> keys;  // keys it set that still hold a value, sorted
};

// A blocking connection to stord, for storectl and the tests. Requests that
// have no reply (set, del, subscribe, unsubscribe, watch_pattern) return once
// written; the store applies a connection's requests in order, so sync() or
// any request with a reply proves the earlier ones took effect. Notifications
// that arrive while a reply is awaited are kept for next_notification(). Every
// failure (connect, write, a closed connection, a reply that never comes)
// throws std::runtime_error.
class stord_client {
  public:
    // Connects to the store's socket; throws std::runtime_error on failure.
    // client_name goes into subscribe and unsubscribe requests.
    explicit stord_client(const std::string &socket_path, std::string client_name = "stord_client");

    void set(const std::string &key, const std::string &value, int flag = 1);
    void del(const std::string &key);
    void subscribe(const std::string &key);
    void unsubscribe(const std::string &key);
    // Asks for a notification of every later set of a key matching the
    // fnmatch pattern, for the life of the connection (tool-only request 28).
    void watch_pattern(const std::string &pattern);

    // Returns once the store has applied every request sent before.
    void sync();
    // Tool-only request 20.
    std::optional<std::string> get(const std::string &key);
    // Tool-only request 22. Values holding 0x1E come back mangled.
    std::map<std::string, std::string> dump();
    // Subscriptions to key over all connections (tool-only request 26).
    long count_subscriptions(const std::string &key);
    // The session of the client that names itself name.
    stord_session session(const std::string &name);
    // Asks for a type-32 frame at every change of any client's session, for
    // the life of the connection (tool-only request 31); next_frame returns
    // them.
    void watch_sessions();

    // Next type-8 notification (key, value), or nullopt after timeout.
    std::optional<std::pair<std::string, std::string>> next_notification(
        std::chrono::milliseconds timeout);
    // The same with the flag and change number.
    std::optional<stord_notification> next_notification_record(std::chrono::milliseconds timeout);

    // Writes bytes as they are, framed or not.
    void send_raw(const std::string &bytes);
    // Next frame body of any type (kept notifications first), or nullopt
    // after timeout.
    std::optional<std::string> next_frame(std::chrono::milliseconds timeout);
    // True once the store has closed this connection (frames still arriving
    // are discarded), false after timeout. Other failures still throw.
    bool wait_closed(std::chrono::milliseconds timeout);
    // True once a read found the connection closed by the store.
    bool closed() const { return closed_; }
    // True once the store has read every byte written so far, false after
    // timeout. Lets a test cut a frame into separately received pieces.
    bool wait_drained(std::chrono::milliseconds timeout);

    // How long a request with a reply may take before it throws.
    void set_reply_timeout(std::chrono::milliseconds timeout) { reply_timeout_ = timeout; }

    // The socket, for polling it alongside other descriptors; owned by the
    // client. Readable does not mean a whole frame is in: after a poll,
    // read with a zero timeout.
    int socket_fd() const { return fd_.get(); }

  private:
    using clock = std::chrono::steady_clock;

    void send_body(const std::string &body);
    // Next body from the socket, or nullopt at the deadline. Throws when the
    // store closed the connection.
    std::optional<std::string> read_frame(clock::time_point deadline);
    // Reads until a frame of the given type, keeping notifications on the way.
    std::string await_reply(int type);

    stord_fd fd_;
    std::string name_;
    stord_frame_reader reader_{stord_frame_max_reply_body};
    std::deque<std::string> kept_;  // notification and session-change bodies not yet returned
    std::chrono::milliseconds reply_timeout_{10000};
    bool closed_ = false;
};
