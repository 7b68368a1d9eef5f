#include "store/frame.h"

#include <cstdlib>

uint32_t tovrin_frame_length(const unsigned char header[TOVRIN_FRAME_HEADER]) {
    return (uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) | (uint32_t{header[2]} << 8) |
           uint32_t{header[3]};
}

namespace {

// The next token of body from pos, skipping leading delimiters; empty when
// none is left. pos ends just past the delimiter that ended the token.
std::string_view token_next(std::string_view body, size_t *pos, std::string_view delimiters) {
    size_t start = body.find_first_not_of(delimiters, *pos);
    if (start == std::string_view::npos) {
        *pos = body.size();
        return {};
    }
    size_t end = body.find_first_of(delimiters, start);
    if (end == std::string_view::npos) {
        *pos = body.size();
        return body.substr(start);
    }
    *pos = end + 1;
    return body.substr(start, end - start);
}

}  // namespace

tovrin_notification tovrin_notification_parse(std::string_view body) {
    static constexpr std::string_view field_delimiters("\x1e\r\n", 3);
    static constexpr std::string_view value_delimiters("\r\n", 2);

    tovrin_notification n;
    size_t pos = 0;
    std::string_view type = token_next(body, &pos, field_delimiters);
    n.type = atoi(std::string(type).c_str());
    n.key = token_next(body, &pos, field_delimiters);
    std::string_view number = token_next(body, &pos, field_delimiters);
    std::string_view change = token_next(body, &pos, field_delimiters);
    if (n.key.empty() || number.empty() || change.empty())
        return n;
    n.value = token_next(body, &pos, value_delimiters);
    return n;
}
