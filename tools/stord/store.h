#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The store's values, subscriptions and pattern watches, and what each
// request does to them. It knows nothing of sockets: the frames a request
// causes are handed back addressed to connection numbers, and the server
// delivers them.
class stord_store {
  public:
    struct outgoing {
        std::uint64_t conn;
        std::string frame;
    };

    // journal: where every frame received is recorded, one line each, or
    // null. Not owned.
    explicit stord_store(std::FILE *journal) : journal_(journal) {}

    // Applies one request body received on connection conn, journals it and
    // appends the frames it causes to out, in the order they must be sent.
    // Returns why the body was refused, or nullopt: a refused body changes
    // nothing and is not journalled, since the caller drops conn and
    // journals the refusal with the rest of them.
    std::optional<std::string> handle(std::uint64_t conn, std::string_view body,
                                      std::vector<outgoing> &out);

    // Records that a frame from conn was refused (a body handle() refused,
    // one announced too long, one cut short by a disconnect).
    void journal_rejected(std::uint64_t conn, std::string_view reason);

    // Forgets every subscription and watch of a connection that went away;
    // when it held a client's session, keeps the keys it set as that
    // client's last ones and appends the frames telling session watchers.
    void drop_connection(std::uint64_t conn, std::vector<outgoing> &out);

  private:
    struct entry {
        std::string value;
        std::string flag;  // as the setter wrote it
        std::uint64_t seq;
    };
    using key_set = std::set<std::string, std::less<>>;
    // What the store knows of one connection beyond its subscriptions.
    struct client {
        std::string name;  // the client name of its first subscription; empty before
        key_set keys;      // the keys it set and has not deleted
    };
    // The latest connection to take a client name, or what it left.
    struct session {
        std::uint64_t conn = 0;  // the connection holding it; 0 once that went
        std::int64_t since = 0;  // when it took the name, or when it went
        key_set last_keys;       // the keys it had set, once it went
    };

    void handle_set(std::string_view key, std::string_view flag, std::string_view value,
                    std::vector<outgoing> &out);
    void handle_subscribe(std::uint64_t conn, std::string_view key, std::vector<outgoing> &out);
    void handle_unsubscribe(std::uint64_t conn, std::string_view key);
    void handle_watch_pattern(std::uint64_t conn, std::string_view pattern);
    void handle_session(std::uint64_t conn, std::string_view name, std::vector<outgoing> &out);
    // Gives conn the client name of a subscription, unless it has one.
    void client_name(std::uint64_t conn, std::string_view name, std::vector<outgoing> &out);
    void session_changed(const std::string &name, const session &s, std::vector<outgoing> &out);
    void journal_write(std::uint64_t conn, const std::vector<std::string_view> &words);

    std::FILE *journal_;
    std::map<std::string, entry, std::less<>> values_;
    // (key, connection) -> how many times that connection subscribed to key.
    // Ordered by key first, so one key's subscribers sit together.
    std::map<std::pair<std::string, std::uint64_t>, long> subs_;
    // connection -> the patterns it watches.
    std::map<std::uint64_t, std::set<std::string>> patterns_;
    std::map<std::uint64_t, client> clients_;
    std::map<std::string, session, std::less<>> sessions_;
    std::set<std::uint64_t> session_watchers_;
    std::uint64_t seq_ = 0;
};
