#include "stord/frame.h"

#include <charconv>
#include <limits>
#include <stdexcept>

std::string stord_frame_encode(std::string_view body) {
    if (body.size() > std::numeric_limits<std::uint32_t>::max())
        throw std::length_error("stord frame body longer than 4 GiB");
    auto len = static_cast<std::uint32_t>(body.size());
    std::string frame;
    frame.reserve(stord_frame_header_len + body.size());
    frame.push_back(static_cast<char>((len >> 24) & 0xff));
    frame.push_back(static_cast<char>((len >> 16) & 0xff));
    frame.push_back(static_cast<char>((len >> 8) & 0xff));
    frame.push_back(static_cast<char>(len & 0xff));
    frame.append(body);
    return frame;
}

std::string stord_frame_join(const std::vector<std::string> &fields) {
    std::string body;
    for (std::size_t i = 0; i < fields.size(); i++) {
        if (i > 0)
            body.push_back(stord_frame_sep);
        body.append(fields[i]);
    }
    return body;
}

std::vector<std::string_view> stord_frame_split(std::string_view body, std::size_t max_fields) {
    std::vector<std::string_view> fields;
    std::size_t start = 0;
    for (;;) {
        if (max_fields != 0 && fields.size() + 1 == max_fields) {
            fields.push_back(body.substr(start));
            return fields;
        }
        std::size_t sep = body.find(stord_frame_sep, start);
        if (sep == std::string_view::npos) {
            fields.push_back(body.substr(start));
            return fields;
        }
        fields.push_back(body.substr(start, sep - start));
        start = sep + 1;
    }
}

std::string stord_frame_escape(std::string_view text) {
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

std::optional<int> stord_frame_parse_uint(std::string_view field) {
    if (field.empty() || field.size() > 9)
        return std::nullopt;
    int value = 0;
    for (char c : field) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

namespace {

bool is_field_delim(char c) {
    return c == stord_frame_sep || c == '\r' || c == '\n';
}
bool is_line_end(char c) {
    return c == '\r' || c == '\n';
}

// Whole-field decimal conversion; from_chars alone accepts trailing junk.
template <typename T>
bool parse_whole(std::string_view s, T &out) {
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
    return ec == std::errc() && end == s.data() + s.size();
}

}  // namespace

std::optional<stord_notification> stord_frame_split_notification(std::string_view body) {
    std::string_view fields[4];
    std::size_t pos = 0;
    for (auto &field : fields) {
        while (pos < body.size() && is_field_delim(body[pos]))
            pos++;
        if (pos == body.size())
            return std::nullopt;
        std::size_t start = pos;
        while (pos < body.size() && !is_field_delim(body[pos]))
            pos++;
        field = body.substr(start, pos - start);
        // Only the one delimiter that ended the field is consumed: the value
        // may begin with 0x1E.
        if (pos < body.size())
            pos++;
    }
    while (pos < body.size() && is_line_end(body[pos]))
        pos++;
    std::size_t start = pos;
    while (pos < body.size() && !is_line_end(body[pos]))
        pos++;

    stord_notification n;
    if (!parse_whole(fields[0], n.type) || !parse_whole(fields[2], n.flag) ||
        !parse_whole(fields[3], n.seq))
        return std::nullopt;
    n.key = fields[1];
    n.value = body.substr(start, pos - start);
    return n;
}

void stord_frame_reader::feed(std::string_view bytes) {
    // Drop what was already handed out before growing, so the buffer holds
    // at most one partial frame plus the new bytes.
    if (pos_ > 0) {
        buf_.erase(0, pos_);
        pos_ = 0;
    }
    buf_.append(bytes);
}

stord_frame_reader::result stord_frame_reader::next(std::string &body) {
    std::size_t avail = buf_.size() - pos_;
    if (avail < stord_frame_header_len)
        return result::incomplete;
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(buf_[pos_ + i]); };
    std::uint32_t len = (std::uint32_t{byte(0)} << 24) | (std::uint32_t{byte(1)} << 16) |
                        (std::uint32_t{byte(2)} << 8) | std::uint32_t{byte(3)};
    if (len > max_body_)
        return result::oversized;
    if (avail - stord_frame_header_len < len)
        return result::incomplete;
    body.assign(buf_, pos_ + stord_frame_header_len, len);
    pos_ += stord_frame_header_len + len;
    if (pos_ == buf_.size()) {
        buf_.clear();
        pos_ = 0;
    }
    return result::frame;
}
