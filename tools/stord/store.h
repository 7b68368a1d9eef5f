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

    // Forgets every subscription and pattern watch of a connection that
    // went away.
    void drop_connection(std::uint64_t conn);

  private:
    struct entry {
        std::string value;
        std::string flag;  // as the setter wrote it
        std::uint64_t seq;
    };

    void handle_set(std::string_view key, std::string_view flag, std::string_view value,
                    std::vector<outgoing> &out);
    void handle_subscribe(std::uint64_t conn, std::string_view key, std::vector<outgoing> &out);
    void handle_unsubscribe(std::uint64_t conn, std::string_view key);
    void handle_watch_pattern(std::uint64_t conn, std::string_view pattern);
    void journal_write(std::uint64_t conn, const std::vector<std::string_view> &words);

    std::FILE *journal_;
    std::map<std::string, entry, std::less<>> values_;
    // (key, connection) -> how many times that connection subscribed to key.
    // Ordered by key first, so one key's subscribers sit together.
    std::map<std::pair<std::string, std::uint64_t>, long> subs_;
    // connection -> the patterns it watches.
    std::map<std::uint64_t, std::set<std::string>> patterns_;
    std::uint64_t seq_ = 0;
};
