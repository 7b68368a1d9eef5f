#include "stord/store.h"

#include <fnmatch.h>

#include <algorithm>
#include <charconv>
#include <ctime>

#include "stord/frame.h"

namespace {

bool is_int(std::string_view s) {
    int value = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
    return ec == std::errc() && end == s.data() + s.size();
}

std::string notification_frame(std::string_view key, std::string_view flag, std::uint64_t seq,
                               std::string_view value) {
    return stord_frame_encode(
        stord_frame_join({std::to_string(stord_type_notify), std::string(key), std::string(flag),
                          std::to_string(seq), std::string(value)}));
}

bool holds_nul(std::string_view s) {
    return s.find('\0') != std::string_view::npos;
}

}  // namespace

std::optional<std::string> stord_store::handle(std::uint64_t conn, std::string_view body,
                                               std::vector<outgoing> &out) {
    auto refuse = [](std::string reason) { return std::optional<std::string>(std::move(reason)); };

    auto fields = stord_frame_split(body);
    auto type = stord_frame_parse_uint(fields[0]);
    if (!type)
        return refuse("non-numeric type");

    std::size_t want = 0;  // field count, the type included
    std::size_t key_at = 1;
    switch (*type) {
        case stord_type_set:
            // The value runs to the end of the body, separators and all.
            fields = stord_frame_split(body, 4);
            want = 4;
            break;
        case stord_type_subscribe:
        case stord_type_unsubscribe:
            want = 3;
            key_at = 2;
            break;
        case stord_type_delete:
        case stord_type_get:
        case stord_type_count:
        case stord_type_watch_pattern:
        case stord_type_session:
            want = 2;
            break;
        case stord_type_dump:
        case stord_type_sync:
        case stord_type_session_watch:
            want = 1;
            key_at = 0;
            break;
        default:
            return refuse("unknown type " + std::to_string(*type));
    }
    if (fields.size() < want)
        return refuse("missing fields");
    if (fields.size() > want)
        return refuse("too many fields");
    std::string_view key = key_at > 0 ? fields[key_at] : std::string_view();
    if (key_at > 0 && key.empty())
        return refuse(*type == stord_type_watch_pattern ? "empty pattern"
                      : *type == stord_type_session     ? "empty client name"
                                                        : "empty key");
    if (*type == stord_type_set && !is_int(fields[2]))
        return refuse("non-numeric flag");

    switch (*type) {
        case stord_type_set:
            journal_write(conn, {"set", key, fields[2], fields[3]});
            handle_set(key, fields[2], fields[3], out);
            clients_[conn].keys.emplace(key);
            break;
        case stord_type_subscribe:
            journal_write(conn, {"subscribe", fields[1], key});
            client_name(conn, fields[1], out);
            handle_subscribe(conn, key, out);
            break;
        case stord_type_unsubscribe:
            journal_write(conn, {"unsubscribe", fields[1], key});
            client_name(conn, fields[1], out);
            handle_unsubscribe(conn, key);
            break;
        case stord_type_delete:
            journal_write(conn, {"delete", key});
            if (auto it = values_.find(key); it != values_.end())
                values_.erase(it);
            if (auto it = clients_.find(conn); it != clients_.end()) {
                if (auto k = it->second.keys.find(key); k != it->second.keys.end())
                    it->second.keys.erase(k);
            }
            break;
        case stord_type_get: {
            journal_write(conn, {"get", key});
            std::vector<std::string> reply{std::to_string(stord_type_get_reply), std::string(key)};
            auto it = values_.find(key);
            reply.push_back(it != values_.end() ? "1" : "0");
            if (it != values_.end())
                reply.push_back(it->second.value);
            out.push_back({conn, stord_frame_encode(stord_frame_join(reply))});
            break;
        }
        case stord_type_dump: {
            journal_write(conn, {"dump"});
            std::vector<std::string> reply{std::to_string(stord_type_dump_reply)};
            for (const auto &[k, e] : values_) {
                reply.push_back(k);
                reply.push_back(e.value);
            }
            out.push_back({conn, stord_frame_encode(stord_frame_join(reply))});
            break;
        }
        case stord_type_sync:
            journal_write(conn, {"sync"});
            out.push_back({conn, stord_frame_encode(std::to_string(stord_type_sync_reply))});
            break;
        case stord_type_count: {
            journal_write(conn, {"count", key});
            long n = 0;
            for (auto it = subs_.lower_bound({std::string(key), 0});
                 it != subs_.end() && it->first.first == key; ++it)
                n += it->second;
            out.push_back({conn, stord_frame_encode(
                                     stord_frame_join({std::to_string(stord_type_count_reply),
                                                       std::string(key), std::to_string(n)}))});
            break;
        }
        case stord_type_watch_pattern:
            journal_write(conn, {"watch", key});
            handle_watch_pattern(conn, key);
            break;
        case stord_type_session:
            journal_write(conn, {"session", key});
            handle_session(conn, key, out);
            break;
        case stord_type_session_watch:
            journal_write(conn, {"watch-sessions"});
            session_watchers_.insert(conn);
            break;
    }
    return std::nullopt;
}

void stord_store::journal_rejected(std::uint64_t conn, std::string_view reason) {
    journal_write(conn, {"rejected", reason});
}

void stord_store::drop_connection(std::uint64_t conn, std::vector<outgoing> &out) {
    std::erase_if(subs_, [conn](const auto &sub) { return sub.first.second == conn; });
    patterns_.erase(conn);
    session_watchers_.erase(conn);
    auto it = clients_.find(conn);
    if (it == clients_.end())
        return;
    // Only the latest connection to take a name holds its session; an
    // earlier one going changes nothing.
    if (auto held = sessions_.find(it->second.name);
        !it->second.name.empty() && held != sessions_.end() && held->second.conn == conn) {
        held->second.conn = 0;
        held->second.since = std::time(nullptr);
        held->second.last_keys = std::move(it->second.keys);
        session_changed(held->first, held->second, out);
    }
    clients_.erase(it);
}

void stord_store::handle_set(std::string_view key, std::string_view flag, std::string_view value,
                             std::vector<outgoing> &out) {
    seq_++;
    auto it = values_.find(key);
    if (it == values_.end())
        it = values_.emplace(std::string(key), entry{}).first;
    it->second = entry{std::string(value), std::string(flag), seq_};

    std::string frame = notification_frame(key, flag, seq_, value);
    for (auto sub = subs_.lower_bound({std::string(key), 0});
         sub != subs_.end() && sub->first.first == key; ++sub) {
        for (long i = 0; i < sub->second; i++)
            out.push_back({sub->first.second, frame});
    }

    // fnmatch stops at a NUL, so a key holding one would match on its
    // prefix alone.
    if (patterns_.empty() || holds_nul(key))
        return;
    const std::string &key_text = it->first;
    for (const auto &[conn, patterns] : patterns_) {
        bool match = std::any_of(patterns.begin(), patterns.end(), [&](const std::string &p) {
            return ::fnmatch(p.c_str(), key_text.c_str(), 0) == 0;
        });
        if (match)
            out.push_back({conn, frame});
    }
}

void stord_store::handle_subscribe(std::uint64_t conn, std::string_view key,
                                   std::vector<outgoing> &out) {
    subs_[{std::string(key), conn}]++;
    // A late subscriber learns the current value at once, with the flag and
    // change number of the set that wrote it.
    if (auto it = values_.find(key); it != values_.end())
        out.push_back(
            {conn, notification_frame(key, it->second.flag, it->second.seq, it->second.value)});
}

void stord_store::handle_unsubscribe(std::uint64_t conn, std::string_view key) {
    auto it = subs_.find({std::string(key), conn});
    if (it == subs_.end())
        return;
    if (--it->second == 0)
        subs_.erase(it);
}

void stord_store::handle_watch_pattern(std::uint64_t conn, std::string_view pattern) {
    // fnmatch would read such a pattern only up to the NUL; it can match
    // nothing the client meant, so it is not kept.
    if (holds_nul(pattern))
        return;
    patterns_[conn].emplace(pattern);
}

void stord_store::handle_session(std::uint64_t conn, std::string_view name,
                                 std::vector<outgoing> &out) {
    std::vector<std::string> reply{std::to_string(stord_type_session_reply), std::string(name)};
    auto it = sessions_.find(name);
    if (it == sessions_.end()) {
        reply.insert(reply.end(), {"unknown", "0"});
    } else {
        const session &s = it->second;
        reply.insert(reply.end(), {s.conn != 0 ? "connected" : "gone", std::to_string(s.since)});
        const key_set &keys = s.conn != 0 ? clients_[s.conn].keys : s.last_keys;
        for (const std::string &key : keys) {
            if (values_.find(key) != values_.end())
                reply.push_back(key);
        }
    }
    out.push_back({conn, stord_frame_encode(stord_frame_join(reply))});
}

void stord_store::client_name(std::uint64_t conn, std::string_view name,
                              std::vector<outgoing> &out) {
    client &c = clients_[conn];
    if (!c.name.empty() || name.empty())
        return;
    c.name = name;
    session &s = sessions_[c.name];
    s = session{conn, std::time(nullptr), {}};
    session_changed(c.name, s, out);
}

void stord_store::session_changed(const std::string &name, const session &s,
                                  std::vector<outgoing> &out) {
    if (session_watchers_.empty())
        return;
    std::string frame = stord_frame_encode(
        stord_frame_join({std::to_string(stord_type_session_event), name,
                          s.conn != 0 ? "connected" : "gone", std::to_string(s.since)}));
    for (std::uint64_t watcher : session_watchers_)
        out.push_back({watcher, frame});
}

void stord_store::journal_write(std::uint64_t conn, const std::vector<std::string_view> &words) {
    if (journal_ == nullptr)
        return;
    std::string line = std::to_string(conn);
    for (auto word : words) {
        line.push_back(' ');
        line += stord_frame_escape(word);
    }
    line.push_back('\n');
    // Flushed per line: tests read the file while the store runs.
    if (std::fwrite(line.data(), 1, line.size(), journal_) != line.size() ||
        std::fflush(journal_) != 0)
        std::fprintf(stderr, "stord: cannot write journal line for connection %llu\n",
                     static_cast<unsigned long long>(conn));
}
