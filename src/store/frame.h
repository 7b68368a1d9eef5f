#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Store frames: 4 bytes of body length in network byte order (not counting
// themselves), then the body, fields separated by the record separator.
constexpr size_t TOVRIN_FRAME_HEADER = 4;
constexpr char TOVRIN_FRAME_SEPARATOR = '\x1e';
constexpr char TOVRIN_STORE_CLIENT[] = "tovrin";

// Decodes the 4 length bytes.
uint32_t tovrin_frame_length(const unsigned char header[TOVRIN_FRAME_HEADER]);

// A value notification as the store sends it.
struct tovrin_notification {
    int type = 0;
    std::string_view key;    // empty: missing
    std::string_view value;  // empty: missing
};

// Splits a frame body: the first four fields end at any run of separator,
// carriage return or line feed; the value starts after the fourth field's
// delimiter, past any carriage returns and line feeds, and runs to the next
// carriage return or line feed, so it may hold separators. The views point
// into body.
tovrin_notification tovrin_notification_parse(std::string_view body);
