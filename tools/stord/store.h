#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The store's values and subscriptions and what each request does to them.
// It knows nothing of sockets: the frames a request causes are handed back
// addressed to connection numbers, and the server delivers them.
class stord_store {
  public:
    struct outgoing {
        std::uint64_t conn;
        std::string frame;
    };

    // journal: where requests 1, 2, 3 and 9 are recorded, one line each, or
    // null. Not owned.
    explicit stord_store(std::FILE *journal) : journal_(journal) {}

    // Applies one request body received on connection conn and appends the
    // frames it causes to out, in the order they must be sent. A malformed
    // body is reported on stderr and changes nothing.
    void handle(std::uint64_t conn, std::string_view body, std::vector<outgoing> &out);

    // Forgets every subscription of a connection that went away.
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
    void journal_write(std::uint64_t conn, const std::vector<std::string_view> &words);

    std::FILE *journal_;
    std::map<std::string, entry, std::less<>> values_;
    // (key, connection) -> how many times that connection subscribed to key.
    // Ordered by key first, so one key's subscribers sit together.
    std::map<std::pair<std::string, std::uint64_t>, long> subs_;
    std::uint64_t seq_ = 0;
};
