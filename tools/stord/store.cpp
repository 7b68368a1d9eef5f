#include "stord/store.h"

#include <charconv>

#include "stord/frame.h"

namespace {

// Journal and diagnostics are line-based, so the bytes that would break a
// line (or hide a field boundary) are written as names.
std::string escape_text(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (char c : text) {
        if (c == stord_frame_sep)
            escaped += "<RS>";
        else if (c == '\r')
            escaped += "<CR>";
        else if (c == '\n')
            escaped += "<LF>";
        else
            escaped.push_back(c);
    }
    return escaped;
}

void report_ignored(std::uint64_t conn, std::string_view body, const std::string &reason) {
    constexpr std::size_t shown = 100;
    std::string text = escape_text(body.substr(0, shown));
    if (body.size() > shown)
        text += "...";
    std::fprintf(stderr, "stord: connection %llu: ignored request: %s: \"%s\"\n",
                 static_cast<unsigned long long>(conn), reason.c_str(), text.c_str());
}

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

}  // namespace

void stord_store::handle(std::uint64_t conn, std::string_view body, std::vector<outgoing> &out) {
    auto fields = stord_frame_split(body);
    auto type = stord_frame_parse_uint(fields[0]);
    if (!type) {
        report_ignored(conn, body, "non-numeric type");
        return;
    }

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
            want = 2;
            break;
        case stord_type_dump:
        case stord_type_sync:
            want = 1;
            key_at = 0;
            break;
        default:
            report_ignored(conn, body, "unknown type " + std::to_string(*type));
            return;
    }
    if (fields.size() < want) {
        report_ignored(conn, body, "missing fields");
        return;
    }
    if (fields.size() > want) {
        report_ignored(conn, body, "too many fields");
        return;
    }
    std::string_view key = key_at > 0 ? fields[key_at] : std::string_view();
    if (key_at > 0 && key.empty()) {
        report_ignored(conn, body, "empty key");
        return;
    }

    switch (*type) {
        case stord_type_set:
            if (!is_int(fields[2])) {
                report_ignored(conn, body, "non-numeric flag");
                return;
            }
            journal_write(conn, {"set", key, fields[2], fields[3]});
            handle_set(key, fields[2], fields[3], out);
            break;
        case stord_type_subscribe:
            journal_write(conn, {"subscribe", fields[1], key});
            handle_subscribe(conn, key, out);
            break;
        case stord_type_unsubscribe:
            journal_write(conn, {"unsubscribe", fields[1], key});
            handle_unsubscribe(conn, key);
            break;
        case stord_type_delete:
            journal_write(conn, {"delete", key});
            if (auto it = values_.find(key); it != values_.end())
                values_.erase(it);
            break;
        case stord_type_get: {
            std::vector<std::string> reply{std::to_string(stord_type_get_reply), std::string(key)};
            auto it = values_.find(key);
            reply.push_back(it != values_.end() ? "1" : "0");
            if (it != values_.end())
                reply.push_back(it->second.value);
            out.push_back({conn, stord_frame_encode(stord_frame_join(reply))});
            break;
        }
        case stord_type_dump: {
            std::vector<std::string> reply{std::to_string(stord_type_dump_reply)};
            for (const auto &[k, e] : values_) {
                reply.push_back(k);
                reply.push_back(e.value);
            }
            out.push_back({conn, stord_frame_encode(stord_frame_join(reply))});
            break;
        }
        case stord_type_sync:
            out.push_back({conn, stord_frame_encode(std::to_string(stord_type_sync_reply))});
            break;
        case stord_type_count: {
            long n = 0;
            for (auto it = subs_.lower_bound({std::string(key), 0});
                 it != subs_.end() && it->first.first == key; ++it)
                n += it->second;
            out.push_back({conn, stord_frame_encode(
                                     stord_frame_join({std::to_string(stord_type_count_reply),
                                                       std::string(key), std::to_string(n)}))});
            break;
        }
    }
}

void stord_store::drop_connection(std::uint64_t conn) {
    std::erase_if(subs_, [conn](const auto &sub) { return sub.first.second == conn; });
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

void stord_store::journal_write(std::uint64_t conn, const std::vector<std::string_view> &words) {
    if (journal_ == nullptr)
        return;
    std::string line = std::to_string(conn);
    for (auto word : words) {
        line.push_back(' ');
        line += escape_text(word);
    }
    line.push_back('\n');
    // Flushed per line: tests read the file while the store runs.
    if (std::fwrite(line.data(), 1, line.size(), journal_) != line.size() ||
        std::fflush(journal_) != 0)
        std::fprintf(stderr, "stord: cannot write journal line for connection %llu\n",
                     static_cast<unsigned long long>(conn));
}
