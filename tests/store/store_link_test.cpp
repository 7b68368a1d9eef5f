#include "store/store_link.h"

#include <sys/socket.h>

#include <algorithm>

#include "stord/frame.h"
#include "store/frame.h"
#include "support/test_inst.h"

// Test text writes the record separator as '|'.
static std::string rs(std::string text) {
    std::replace(text.begin(), text.end(), '|', TOVRIN_FRAME_SEPARATOR);
    return text;
}

static std::string receive(test_inst &t) {
    std::string got;
    char buf[65536];
    for (ssize_t n; (n = read(t.store_end.get(), buf, sizeof buf)) > 0;)
        got.append(buf, static_cast<size_t>(n));
    return got;
}

static void read_once(test_inst &t) {
    tovrin_store_read(t.daemon_end.get(), EV_READ, &t.inst);
}

static void write_once(test_inst &t) {
    tovrin_store_write(t.daemon_end.get(), EV_WRITE, &t.inst);
}

// Requests go out literally, one frame per readiness report, in order; a
// partial write resumes where it stopped before the next frame starts.
TEST(StoreLink, WritesEachRequestLiterallyOneAtATime) {
    test_inst t;
    log_capture log;
    t.inst.globals->instance_log_mask |= TOVRIN_INST_LOG_DEBUGSTORD;
    EXPECT_EQ(tovrin_store_subscribe(&t.inst, "config.tovrin.command"), 0);
    EXPECT_EQ(tovrin_store_send(&t.inst, TOVRIN_STORE_SET, "tovrin.wan.status", 2, "up"), 0);
    EXPECT_EQ(tovrin_store_unsubscribe(&t.inst, "k"), 0);
    EXPECT_EQ(tovrin_store_send(&t.inst, TOVRIN_STORE_DELETE, "tovrin.x.status", 0, nullptr), 0);
    EXPECT_EQ(tovrin_store_send(&t.inst, 8, "k", 1, "v"), -1);
    EXPECT_TRUE(t.inst.store_write_event.pending());
    // Spelt out byte by byte: a frame code wrong on both sides still fails.
    const std::pair<std::string, std::string> sent[] = {
        {"2|tovrin|config.tovrin.command",
         std::string("\000\000\000\0362\036tovrin\036config.tovrin.command", 34)},
        {"1|tovrin.wan.status|2|up",
         std::string("\000\000\000\0301\036tovrin.wan.status\0362\036up", 28)},
        {"3|tovrin|k", std::string("\000\000\000\0123\036tovrin\036k", 14)},
        {"9|tovrin.x.status", std::string("\000\000\000\0219\036tovrin.x.status", 21)}};
    strings said = {"unknown message type"};
    for (const auto &[body, frame] : sent) {
        write_once(t);
        EXPECT_EQ(receive(t), frame);
        said.push_back(rs("Writing to stord with msg len of " + std::to_string(body.size() + 4) +
                          ", tx_len of 0 msg of " + body));
    }
    EXPECT_TRUE(t.inst.store_write_event.pending());
    write_once(t);
    EXPECT_FALSE(t.inst.store_write_event.pending());
    EXPECT_EQ(log.messages(), said);

    int small = 4096;
    setsockopt(t.daemon_end.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    t.inst.globals->instance_log_mask = 0;
    log_capture quiet;
    std::string big(300000, 'v');
    tovrin_store_send(&t.inst, TOVRIN_STORE_SET, "big", 1, big.c_str());
    tovrin_store_send(&t.inst, TOVRIN_STORE_SET, "next", 1, "x");
    const std::string expected =
        stord_frame_encode(rs("1|big|1|") + big) + stord_frame_encode(rs("1|next|1|x"));
    std::string received;
    for (int writes = 0; !t.inst.store_out_queue.empty() && writes < 10000; writes++) {
        // The second write finds the socket full.
        write_once(t);
        write_once(t);
        received += receive(t);
        ASSERT_EQ(received, expected.substr(0, received.size()));
    }
    EXPECT_EQ(received, expected);
    EXPECT_TRUE(quiet.records.empty()) << "a full socket is a reason to wait, not an error";
}

// One read per readiness report: a length arriving byte by byte is
// assembled, and of two frames sent together the second waits its turn.
TEST(StoreLink, ReadsOnePieceAtATime) {
    test_inst t;
    t.inst.store_vars.push_front(tovrin_var_sub{"k", std::nullopt});
    const std::optional<std::string> &value = t.inst.store_vars.front().current_val;
    std::string frame("\000\000\000\0158\036k\0361\0362\036hello", 17);
    log_capture log;
    read_once(t);
    for (int i = 0; i < 4; i++) {
        ASSERT_EQ(write(t.store_end.get(), &frame[static_cast<size_t>(i)], 1), 1);
        read_once(t);
        EXPECT_EQ(t.inst.store_rx_state, i < 3 ? 1 : 2);
    }
    read_once(t);
    std::string rest = frame.substr(4) + stord_frame_encode(rs("8|k|1|2|first")) +
                       stord_frame_encode("") + stord_frame_encode(rs("8|k|1|2|second"));
    ASSERT_EQ(write(t.store_end.get(), rest.data(), rest.size()), ssize_t(rest.size()));
    read_once(t);
    EXPECT_EQ(value, "hello");
    read_once(t);
    read_once(t);
    EXPECT_EQ(value, "first");
    EXPECT_TRUE(log.records.empty());
    // An empty body reads as nothing, said as a failed body read is; the
    // next frame is read as usual.
    read_once(t);
    EXPECT_EQ(log.records, (std::vector<log_record>{{0, "error reading message from stord"}}));
    read_once(t);
    read_once(t);
    EXPECT_EQ(value, "second");
}

// A notification's fields end at separators, carriage returns and line
// feeds, whose runs collapse; the value alone may hold separators.
TEST(StoreLink, NotificationsSplitIntoTypeKeyAndValue) {
    const struct {
        const char *body;
        int type;
        const char *key, *value;
    } cases[] = {
        // clang-format off
        {"8|k|1|5|a|b", 8, "k", "a|b"}, {"8|k|1|5|val\r\n", 8, "k", "val"},
        {"8|k|1|5|val\nignored", 8, "k", "val"}, {"|\r8||k\n\n1\r5|val", 8, "k", "val"},
        {"8|k|1|5|\r\nval", 8, "k", "val"}, {"8|k|1|5||val", 8, "k", "|val"},
        {"7|k|1|5|val", 7, "k", "val"}, {"8|k|1|5", 8, "k", ""}, {"8|k|1|5|\r\n", 8, "k", ""},
        {"8|k", 8, "k", ""}, {"", 0, "", ""}, {"x|k|1|5|v", 0, "k", "v"},
        // clang-format on
    };
    for (const auto &c : cases) {
        std::string body = rs(c.body);
        tovrin_notification n = tovrin_notification_parse(body);
        EXPECT_EQ(n.type, c.type) << c.body;
        EXPECT_EQ(std::string(n.key), c.key) << c.body;
        EXPECT_EQ(std::string(n.value), rs(c.value)) << c.body;
    }
}
