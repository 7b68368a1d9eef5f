// stord fed damaged, refused and oddly cut input by real clients: the
// offending client is dropped with one log line and one journal line, and
// everyone else goes on being served.

#include <gtest/gtest.h>
#include <signal.h>

#include <optional>
#include <string>
#include <vector>

#include "stord/client.h"
#include "stord/frame.h"
#include "support/child_process.h"
#include "support/stord_harness.h"
#include "support/temp_dir.h"

namespace {

using namespace std::chrono_literals;
using strings = std::vector<std::string>;

const std::string RS = "\x1e";
constexpr auto patience = 10s;

std::string header(unsigned b0, unsigned b1, unsigned b2, unsigned b3) {
    return {static_cast<char>(b0), static_cast<char>(b1), static_cast<char>(b2),
            static_cast<char>(b3)};
}

std::string frame(const std::string &body) {
    return stord_frame_encode(body);
}

class stord_input_e2e : public ::testing::Test {
  protected:
    stord_client connect(const std::string &name = "test") {
        return stord_client(store.socket_path(), name);
    }

    temp_dir dir;
    stord_harness store{dir.file("stord.sock"), dir.file("journal")};
};

// Values of every notification the client has been sent so far (see the
// same helper in stord_e2e_test.cpp).
strings drain(stord_client &client) {
    client.sync();
    strings values;
    while (auto n = client.next_notification(0ms))
        values.push_back(n->second);
    return values;
}

TEST_F(stord_input_e2e, each_kind_of_bad_input_closes_only_that_client) {
    const std::string set_frame = frame("1" + RS + "k" + RS + "1" + RS + "v");
    struct {
        const char *what;
        std::string bytes;
        bool hang_up;  // the client closes its end right after the bytes
        std::string reason;
        std::optional<std::string> shown;  // the body as the log line quotes it
    } cases[] = {
        {"length one over the limit", header(0, 0x10, 0, 1) + "abc", false,
         "announced body longer than 1 MiB", std::nullopt},
        {"all length bits set", header(0xff, 0xff, 0xff, 0xff), false,
         "announced body longer than 1 MiB", std::nullopt},
        {"empty body", frame(""), false, "non-numeric type", ""},
        {"type not a number", frame("x" + RS + "k"), false, "non-numeric type", "x<RS>k"},
        {"negative type", frame("-1" + RS + "k"), false, "non-numeric type", "-1<RS>k"},
        {"type of ten digits", frame("1234567890"), false, "non-numeric type", "1234567890"},
        {"long body cut in the log", frame("5\r\n" + std::string(150, 'a')), false,
         "non-numeric type", "5<CR><LF>" + std::string(97, 'a') + "..."},
        {"unknown type", frame("77" + RS + "k"), false, "unknown type 77", "77<RS>k"},
        // The store drops the client before reading all of this, which the
        // client then sees as a reset rather than an end of file.
        {"unknown type with more queued behind it",
         frame("77") + frame("1" + RS + "k" + RS + "1" + RS + std::string(100'000, 'v')), false,
         "unknown type 77", "77"},
        {"notification sent to the store", frame("8" + RS + "k" + RS + "1" + RS + "1" + RS + "v"),
         false, "unknown type 8", "8<RS>k<RS>1<RS>1<RS>v"},
        {"reply sent to the store", frame("25"), false, "unknown type 25", "25"},
        {"set without key", frame("1"), false, "missing fields", "1"},
        {"set without value", frame("1" + RS + "k" + RS + "1"), false, "missing fields",
         "1<RS>k<RS>1"},
        {"subscribe without key", frame("2" + RS + "tovrin"), false, "missing fields",
         "2<RS>tovrin"},
        {"delete without key", frame("9"), false, "missing fields", "9"},
        {"get without key", frame("20"), false, "missing fields", "20"},
        {"watch without pattern", frame("28"), false, "missing fields", "28"},
        {"delete with extra field", frame("9" + RS + "k" + RS + "extra"), false, "too many fields",
         "9<RS>k<RS>extra"},
        {"unsubscribe with extra field", frame("3" + RS + "a" + RS + "k" + RS + "c"), false,
         "too many fields", "3<RS>a<RS>k<RS>c"},
        {"sync with a trailing separator", frame("24" + RS), false, "too many fields", "24<RS>"},
        {"watch with two patterns", frame("28" + RS + "a*" + RS + "b*"), false, "too many fields",
         "28<RS>a*<RS>b*"},
        {"set with empty key", frame("1" + RS + RS + "1" + RS + "v"), false, "empty key",
         "1<RS><RS>1<RS>v"},
        {"subscribe with empty key", frame("2" + RS + "tovrin" + RS), false, "empty key",
         "2<RS>tovrin<RS>"},
        {"count with empty key", frame("26" + RS), false, "empty key", "26<RS>"},
        {"watch with empty pattern", frame("28" + RS), false, "empty pattern", "28<RS>"},
        {"flag a word", frame("1" + RS + "k" + RS + "up" + RS + "v"), false, "non-numeric flag",
         "1<RS>k<RS>up<RS>v"},
        {"flag empty", frame("1" + RS + "k" + RS + RS + "v"), false, "non-numeric flag",
         "1<RS>k<RS><RS>v"},
        {"flag past int", frame("1" + RS + "k" + RS + "99999999999" + RS + "v"), false,
         "non-numeric flag", "1<RS>k<RS>99999999999<RS>v"},
        {"gone within the length", set_frame.substr(0, 2), true,
         "disconnected in the middle of a frame (2 bytes received)", std::nullopt},
        {"gone within the body", set_frame.substr(0, 9), true,
         "disconnected in the middle of a frame (9 bytes received)", std::nullopt},
    };

    auto other = connect("other");  // connection 1
    other.subscribe("k");
    other.sync();
    std::string expected_stderr;
    int conn = 1;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::string id = std::to_string(++conn);
        std::optional<stord_client> bad(connect("bad"));
        // Leave state for the drop to clean up: a subscription and a watch.
        bad->subscribe("k");
        bad->watch_pattern("*");
        bad->sync();
        ASSERT_EQ(other.count_subscriptions("k"), 2);

        bad->send_raw(c.bytes);
        if (c.hang_up)
            bad.reset();
        else
            EXPECT_TRUE(bad->wait_closed(patience));

        expected_stderr += "stord: connection " + id + ": dropped: " + c.reason;
        if (c.shown)
            expected_stderr += ": \"" + *c.shown + "\"";
        expected_stderr += "\n";
        EXPECT_TRUE(wait_until([&] { return store.stderr_text() == expected_stderr; }, patience))
            << store.stderr_text();
        strings journal = store.journal();
        ASSERT_FALSE(journal.empty());
        EXPECT_EQ(journal.back(), id + " rejected " + c.reason);

        // The bystander is served as before, and the dropped client's
        // subscription went with it.
        EXPECT_EQ(other.count_subscriptions("k"), 1);
        other.set("k", c.what);
        EXPECT_EQ(drain(other), strings{c.what});
        EXPECT_EQ(other.get("k"), c.what);
    }
}

TEST_F(stord_input_e2e, nothing_after_a_refused_frame_is_applied) {
    auto bad = connect();  // connection 1
    bad.send_raw(frame("1" + RS + "a" + RS + "1" + RS + "before") + frame("77") +
                 frame("1" + RS + "b" + RS + "1" + RS + "after") + frame("24"));
    EXPECT_TRUE(bad.wait_closed(patience));
    EXPECT_TRUE(bad.closed());

    auto check = connect();
    EXPECT_EQ(check.get("a"), "before");
    EXPECT_EQ(check.get("b"), std::nullopt);
    EXPECT_EQ(store.journal(),
              (strings{"1 set a 1 before", "1 rejected unknown type 77", "2 get a", "2 get b"}));
}

TEST_F(stord_input_e2e, a_body_of_exactly_the_limit_is_taken) {
    auto c = connect();
    // "1" RS "k" RS "1" RS value
    std::string value(stord_frame_max_body - 6, 'x');
    value[0] = 'a';
    value.back() = 'z';
    std::string body = "1" + RS + "k" + RS + "1" + RS + value;
    ASSERT_EQ(body.size(), stord_frame_max_body);
    c.send_raw(frame(body));
    // Its reply is longer than the limit on requests, which binds only the
    // store.
    EXPECT_EQ(c.get("k"), value);
    EXPECT_EQ(store.stderr_text(), "");
}

TEST_F(stord_input_e2e, frames_arriving_a_byte_at_a_time_are_assembled) {
    auto c = connect();
    std::string stream =
        frame(stord_frame_join({"1", "k", "2", "a" + RS + "b"})) + frame("20" + RS + "k");
    // Proves that waiting for the store to drain a byte means it read it:
    // with the store stopped, a written byte stays queued.
    ASSERT_EQ(::kill(store.pid(), SIGSTOP), 0);
    c.send_raw(stream.substr(0, 1));
    EXPECT_FALSE(c.wait_drained(50ms));
    ASSERT_EQ(::kill(store.pid(), SIGCONT), 0);
    ASSERT_TRUE(c.wait_drained(patience));

    for (char byte : stream.substr(1)) {
        c.send_raw(std::string(1, byte));
        ASSERT_TRUE(c.wait_drained(patience));
    }
    auto reply = c.next_frame(patience);
    ASSERT_TRUE(reply);
    EXPECT_EQ(*reply, "21" + RS + "k" + RS + "1" + RS + "a" + RS + "b");
    EXPECT_EQ(store.stderr_text(), "");
    EXPECT_EQ(store.journal(), (strings{"1 set k 2 a<RS>b", "1 get k"}));
}

TEST_F(stord_input_e2e, a_client_that_leaves_unread_replies_is_not_reported) {
    auto other = connect();
    {
        auto c = connect();
        c.set("k", "v");
        c.subscribe("k");
        c.send_raw(frame("22") + frame("20" + RS + "k") + frame("24"));
        ASSERT_TRUE(c.wait_drained(patience));
        // Gone without reading a notification and three replies: the store
        // sees a reset or a broken pipe, not bad input.
    }
    EXPECT_TRUE(wait_until([&] { return other.count_subscriptions("k") == 0; }, patience));
    EXPECT_EQ(other.get("k"), "v");
    EXPECT_EQ(store.stderr_text(), "");
}

}  // namespace
