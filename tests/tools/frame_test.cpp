#include "stord/frame.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

const std::string RS = "\x1e";

std::string header(unsigned b0, unsigned b1, unsigned b2, unsigned b3) {
    return {static_cast<char>(b0), static_cast<char>(b1), static_cast<char>(b2),
            static_cast<char>(b3)};
}

struct read_outcome {
    std::vector<std::string> bodies;
    stord_frame_reader::result last;
    std::size_t buffered;
};

// Feeds the stream in pieces of at most `piece` bytes (0: all at once) and
// collects every frame the reader gives back.
read_outcome read_all(const std::string &stream, std::size_t piece,
                      std::uint32_t max_body = stord_frame_max_body) {
    stord_frame_reader reader(max_body);
    read_outcome got{{}, stord_frame_reader::result::incomplete, 0};
    std::size_t step = piece == 0 ? std::max<std::size_t>(stream.size(), 1) : piece;
    for (std::size_t at = 0; at < stream.size(); at += step) {
        reader.feed(std::string_view(stream).substr(at, step));
        std::string body;
        while ((got.last = reader.next(body)) == stord_frame_reader::result::frame)
            got.bodies.push_back(body);
        if (got.last == stord_frame_reader::result::oversized)
            break;
    }
    got.buffered = reader.buffered();
    return got;
}

TEST(stord_frame, encode_puts_the_body_length_in_network_order) {
    struct {
        std::string body;
        std::string header;
    } cases[] = {
        {"", header(0, 0, 0, 0)},
        {"1" + RS + "tovrin.wan.status" + RS + "2" + RS + "up", header(0, 0, 0, 0x18)},
        {"2" + RS + "tovrin" + RS + "config.tovrin.command", header(0, 0, 0, 0x1e)},
        {std::string(300, 'x'), header(0, 0, 1, 0x2c)},
        {std::string(70000, 'x'), header(0, 1, 0x11, 0x70)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.body.substr(0, 40));
        EXPECT_EQ(stord_frame_encode(c.body), c.header + c.body);
    }
}

TEST(stord_frame, reader_handles_damaged_and_partial_streams) {
    const std::string set_body = "1" + RS + "k" + RS + "1" + RS + "v";  // 7 bytes
    const std::string set_frame = stord_frame_encode(set_body);
    using r = stord_frame_reader::result;
    struct {
        const char *what;
        std::string stream;
        std::uint32_t max_body;
        std::vector<std::string> bodies;
        r last;
        std::size_t buffered;
    } cases[] = {
        {"one frame", set_frame, stord_frame_max_body, {set_body}, r::incomplete, 0},
        {"two frames together",
         set_frame + stord_frame_encode("24"),
         stord_frame_max_body,
         {set_body, "24"},
         r::incomplete,
         0},
        {"empty body",
         header(0, 0, 0, 0) + set_frame,
         stord_frame_max_body,
         {"", set_body},
         r::incomplete,
         0},
        {"short length",
         header(0, 0, 0, 7).substr(0, 3),
         stord_frame_max_body,
         {},
         r::incomplete,
         3},
        {"truncated body", set_frame.substr(0, 9), stord_frame_max_body, {}, r::incomplete, 9},
        {"frame then a truncated one",
         set_frame + set_frame.substr(0, 5),
         stord_frame_max_body,
         {set_body},
         r::incomplete,
         5},
        // A length one too large swallows the next frame's first byte.
        {"length byte incremented",
         header(0, 0, 0, 8) + set_body + set_frame,
         stord_frame_max_body,
         {set_body + set_frame.substr(0, 1)},
         r::incomplete,
         10},
        // One too small leaves the last body byte to be read as a length.
        {"length byte decremented",
         header(0, 0, 0, 6) + set_body,
         stord_frame_max_body,
         {set_body.substr(0, 6)},
         r::incomplete,
         1},
        {"length at the limit waits for the body",
         header(0, 0, 0, 8) + "1234",
         8,
         {},
         r::incomplete,
         8},
        {"length over the limit", header(0, 0, 0, 9) + "123456789", 8, {}, r::oversized, 13},
        {"frames before an oversized one are kept",
         set_frame + header(0x01, 0, 0, 1),
         stord_frame_max_body,
         {set_body},
         r::oversized,
         4},
        {"the real limit waits for the body",
         header(0, 0x10, 0, 0),
         stord_frame_max_body,
         {},
         r::incomplete,
         4},
        {"one over the real limit",
         header(0, 0x10, 0, 1),
         stord_frame_max_body,
         {},
         r::oversized,
         4},
        {"all length bits set",
         header(0xff, 0xff, 0xff, 0xff),
         stord_frame_max_body,
         {},
         r::oversized,
         4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        read_outcome got = read_all(c.stream, 0, c.max_body);
        EXPECT_EQ(got.bodies, c.bodies);
        EXPECT_EQ(got.last, c.last);
        EXPECT_EQ(got.buffered, c.buffered);
    }
}

TEST(stord_frame, reader_stays_on_an_oversized_length) {
    stord_frame_reader reader(8);
    reader.feed(header(0, 0, 0, 9));
    std::string body = "untouched";
    EXPECT_EQ(reader.next(body), stord_frame_reader::result::oversized);
    reader.feed(stord_frame_encode("24"));
    EXPECT_EQ(reader.next(body), stord_frame_reader::result::oversized);
    EXPECT_EQ(body, "untouched");
}

TEST(stord_frame, reader_gives_the_same_frames_however_the_stream_is_cut) {
    std::string stream = stord_frame_encode("1" + RS + "a" + RS + "2" + RS + "x" + RS + "y") +
                         stord_frame_encode("") + stord_frame_encode("22") +
                         stord_frame_encode(std::string(1000, 'z'));
    read_outcome whole = read_all(stream, 0);
    ASSERT_EQ(whole.bodies.size(), 4u);
    for (std::size_t piece : {1, 2, 3, 5, 7, 64}) {
        SCOPED_TRACE(piece);
        read_outcome cut = read_all(stream, piece);
        EXPECT_EQ(cut.bodies, whole.bodies);
        EXPECT_EQ(cut.buffered, 0u);
    }
}

TEST(stord_frame, split_keeps_separators_in_the_last_field) {
    using fields = std::vector<std::string>;
    struct {
        std::string body;
        std::size_t max_fields;
        fields expected;
    } cases[] = {
        {"1" + RS + "k" + RS + "2" + RS + "a" + RS + "b", 4, {"1", "k", "2", "a" + RS + "b"}},
        {"1" + RS + "k" + RS + "2" + RS + "a" + RS + "b", 0, {"1", "k", "2", "a", "b"}},
        {"1" + RS + "k" + RS + "2" + RS, 4, {"1", "k", "2", ""}},
        {"1" + RS + "k", 4, {"1", "k"}},
        {"22", 0, {"22"}},
        {"", 0, {""}},
        {"2" + RS + RS + "k", 0, {"2", "", "k"}},
        {RS, 1, {RS}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.body);
        auto got = stord_frame_split(c.body, c.max_fields);
        EXPECT_EQ(fields(got.begin(), got.end()), c.expected);
    }
}

TEST(stord_frame, join_then_split_round_trips) {
    std::vector<std::string> fields{"1", "tovrin.wan.status", "2", "waiting to start"};
    std::string body = stord_frame_join(fields);
    EXPECT_EQ(body, "1" + RS + "tovrin.wan.status" + RS + "2" + RS + "waiting to start");
    auto split = stord_frame_split(body, 4);
    EXPECT_EQ(std::vector<std::string>(split.begin(), split.end()), fields);
    EXPECT_EQ(stord_frame_join({}), "");
}

TEST(stord_frame, escape_names_the_bytes_that_would_break_a_line) {
    struct {
        std::string text;
        std::string escaped;
    } cases[] = {
        {"", ""},
        {"plain text, kept as is", "plain text, kept as is"},
        {"a" + RS + "b", "a<RS>b"},
        {RS + RS, "<RS><RS>"},
        {"line\r\nnext\n", "line<CR><LF>next<LF>"},
        {"<RS> already", "<RS> already"},
        {"tab\tand\0nul"s, "tab\tand\0nul"s},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.escaped);
        EXPECT_EQ(stord_frame_escape(c.text), c.escaped);
    }
}

TEST(stord_frame, parse_uint_accepts_plain_digits_only) {
    struct {
        std::string text;
        std::optional<int> expected;
    } cases[] = {
        {"1", 1},           {"023", 23}, {"999999999", 999999999},
        {"1234567890", {}}, {"", {}},    {"-1", {}},
        {"+1", {}},         {" 1", {}},  {"1a", {}},
        {"1\r", {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(stord_frame_parse_uint(c.text), c.expected);
    }
}

TEST(stord_frame, notification_split_matches_the_receiving_side) {
    struct {
        const char *what;
        std::string body;
        std::optional<std::string> key;  // nullopt: rejected
        std::string value;
    } cases[] = {
        {"plain", "8" + RS + "k" + RS + "2" + RS + "5" + RS + "up", "k", "up"},
        {"separator inside the value is kept",
         "8" + RS + "k" + RS + "1" + RS + "1" + RS + "a" + RS + "b", "k", "a" + RS + "b"},
        {"value may start with a separator", "8" + RS + "k" + RS + "1" + RS + "1" + RS + RS + "b",
         "k", RS + "b"},
        {"CR LF at the end are cut", "8" + RS + "k" + RS + "1" + RS + "1" + RS + "up\r\n", "k",
         "up"},
        {"LF inside cuts the rest", "8" + RS + "k" + RS + "1" + RS + "1" + RS + "a\nb", "k", "a"},
        {"CR inside cuts the rest", "8" + RS + "k" + RS + "1" + RS + "1" + RS + "a\rb", "k", "a"},
        {"leading CR LF are skipped", "8" + RS + "k" + RS + "1" + RS + "1" + RS + "\r\nv", "k",
         "v"},
        {"delimiter runs collapse", "8" + RS + RS + "k\r\n1" + RS + "\n1" + RS + "v", "k", "v"},
        {"missing value reads empty", "8" + RS + "k" + RS + "1" + RS + "1", "k", ""},
        {"value of only line ends reads empty", "8" + RS + "k" + RS + "1" + RS + "1" + RS + "\r\n",
         "k", ""},
        {"three fields", "8" + RS + "k" + RS + "1", std::nullopt, ""},
        {"empty body", "", std::nullopt, ""},
        {"change number not a number", "8" + RS + "k" + RS + "1" + RS + "x" + RS + "v",
         std::nullopt, ""},
        {"flag not a number", "8" + RS + "k" + RS + "f" + RS + "1" + RS + "v", std::nullopt, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        auto got = stord_frame_split_notification(c.body);
        ASSERT_EQ(got.has_value(), c.key.has_value());
        if (!got)
            continue;
        EXPECT_EQ(got->type, 8);
        EXPECT_EQ(got->key, *c.key);
        EXPECT_EQ(got->value, c.value);
    }
}

TEST(stord_frame, notification_split_reads_both_numbers) {
    auto got = stord_frame_split_notification("8" + RS + "k" + RS + "-2" + RS +
                                              "18446744073709551615" + RS + "v");
    ASSERT_TRUE(got);
    EXPECT_EQ(got->flag, -2);
    EXPECT_EQ(got->seq, 18446744073709551615ull);
}

}  // namespace
