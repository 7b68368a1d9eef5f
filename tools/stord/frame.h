#pragma once

// The store's wire format, shared by stord, storectl and the test support.
// A frame is a 4-byte body length (unsigned, network byte order, not counting
// itself) followed by the body: ASCII fields separated by 0x1E, the first
// one the decimal request type. No terminator, no trailing newline.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

inline constexpr char stord_frame_sep = '\x1e';
inline constexpr std::size_t stord_frame_header_len = 4;
// The store drops a client announcing a longer body.
inline constexpr std::uint32_t stord_frame_max_body = 1024u * 1024;
// What a client accepts from the store: a dump holds every value at once.
inline constexpr std::uint32_t stord_frame_max_reply_body = 64u * 1024 * 1024;

// Where stord listens and storectl connects unless told otherwise.
inline constexpr const char *stord_default_socket = "/var/run/stord.sock";

// Request and reply types. 1 to 9 are what the connection manager speaks;
// 20 and above are for tools and tests only. A client whose frame the store
// cannot take (an announced body over the limit, a non-numeric or unknown
// type, missing or extra fields, an empty key or pattern, a non-numeric flag,
// a disconnect in the middle of a frame) is dropped, with one line on stderr
// and one in the journal; nothing it sent from that frame on is applied.
enum stord_frame_type : int {
    stord_type_set = 1,             // key, flag, value (the value may hold 0x1E)
    stord_type_subscribe = 2,       // client name, key
    stord_type_unsubscribe = 3,     // client name, key
    stord_type_notify = 8,          // key, flag, change number, value (store to subscriber)
    stord_type_delete = 9,          // key
    stord_type_get = 20,            // key
    stord_type_get_reply = 21,      // key, 1, value  or  key, 0
    stord_type_dump = 22,           // no fields
    stord_type_dump_reply = 23,     // key1, value1, key2, value2 ... sorted by key; a value
                                    // holding 0x1E makes the reply ambiguous
    stord_type_sync = 24,           // no fields; answered once everything before it is applied
    stord_type_sync_reply = 25,     // no fields
    stord_type_count = 26,          // key
    stord_type_count_reply = 27,    // key, number of subscriptions to it over all connections
    stord_type_watch_pattern = 28,  // fnmatch pattern (no flags); no reply. From then on, for
                                    // the life of the connection, every set of a matching key
                                    // sends it one type-8 notification however many of its
                                    // patterns match (on top of any its subscriptions cause).
                                    // Current values are not sent; a key or pattern holding
                                    // a NUL byte never matches.
    stord_type_session = 29,        // client name
    stord_type_session_reply = 30,  // client name, state, since, then the keys the session
                                    // set that still hold a value, sorted. A connection takes
                                    // the client name of its first subscribe or unsubscribe;
                                    // the latest to take a name holds its session. State is
                                    // "connected" (since: when it took the name), "gone"
                                    // (since: when it went; the keys are those it had set)
                                    // or "unknown" (no connection ever took it; since 0).
                                    // Times are seconds since the epoch.
    stord_type_session_watch = 31,  // no fields; no reply. From then on, for the life of the
                                    // connection, a type-32 frame each time a connection
                                    // takes a client name or one holding a session goes.
    stord_type_session_event = 32,  // client name, state, since (store to watcher)
};

// A type-8 notification as the connection manager's reader splits it.
struct stord_notification {
    int type = 0;
    std::string key;
    long flag = 0;
    std::uint64_t seq = 0;
    std::string value;
};

// Length header plus body, ready to write. Throws std::length_error when the
// body does not fit the 32-bit length.
std::string stord_frame_encode(std::string_view body);

// Fields joined with the separator (the body of a frame).
std::string stord_frame_join(const std::vector<std::string> &fields);

// Splits a body on the separator into at most max_fields fields, the last one
// keeping the rest with any separators in it (0: no limit). The views point
// into body.
std::vector<std::string_view> stord_frame_split(std::string_view body, std::size_t max_fields = 0);

// text with the bytes that would break a log or journal line, or hide a field
// boundary in it, written as <RS>, <CR> and <LF>.
std::string stord_frame_escape(std::string_view text);

// A non-negative decimal made of digits only, at most 9 of them; nullopt
// otherwise. Request types and small counts are written this way.
std::optional<int> stord_frame_parse_uint(std::string_view field);

// Splits a notification body the way the connection manager does: the first
// four fields end at any run of 0x1E, CR or LF; the value starts after the
// fourth field's delimiter, skips leading CR and LF and stops at the next CR
// or LF (0x1E bytes stay in it). nullopt when fewer than four fields arrive
// or a number does not parse; a missing value reads as empty.
std::optional<stord_notification> stord_frame_split_notification(std::string_view body);

// Reassembles frames from bytes as they arrive on a stream, however they are
// cut.
class stord_frame_reader {
  public:
    enum class result { incomplete, frame, oversized };

    explicit stord_frame_reader(std::uint32_t max_body = stord_frame_max_body)
        : max_body_(max_body) {}

    void feed(std::string_view bytes);

    // Moves the next complete body into body. oversized means the announced
    // length exceeds the limit; the reader stays stuck on it, since the only
    // sane answer is to drop the peer.
    result next(std::string &body);

    // Bytes received and not yet returned as a frame.
    std::size_t buffered() const { return buf_.size() - pos_; }

  private:
    std::uint32_t max_body_;
    std::string buf_;
    std::size_t pos_ = 0;  // start of the first unreturned byte in buf_
};
