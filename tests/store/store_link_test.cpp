#include "store/store_link.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "supervise/inst.h"
#include "support/log_capture.h"

namespace {

using namespace std::string_literals;

std::string framed(const std::string &body) {
    uint32_t n = static_cast<uint32_t>(body.size());
    std::string frame;
    frame += static_cast<char>(n >> 24);
    frame += static_cast<char>(n >> 16);
    frame += static_cast<char>(n >> 8);
    frame += static_cast<char>(n);
    return frame + body;
}

std::string value_notification(const std::string &key, const std::string &value) {
    return framed("8\x1e" + key +
                  "\x1e"
                  "2\x1e"
                  "17\x1e" +
                  value);
}

// An initialised instance whose store link is one end of a socket pair; the
// test plays the store on the other end.
class StoreLink : public ::testing::Test {
  protected:
    void SetUp() override {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        daemon_end.reset(pair[0]);
        store_end.reset(pair[1]);
        ASSERT_EQ(fcntl(daemon_end.get(), F_SETFL, O_NONBLOCK), 0);
        ASSERT_EQ(fcntl(store_end.get(), F_SETFL, O_NONBLOCK), 0);
        ASSERT_NE(tovrin_inst_init(daemon_end.get(), &inst), nullptr);
    }

    // What the store has received so far.
    std::string store_receive() {
        std::string got;
        char buf[65536];
        ssize_t n;
        while ((n = read(store_end.get(), buf, sizeof buf)) > 0)
            got.append(buf, static_cast<size_t>(n));
        return got;
    }

    void store_send(const std::string &bytes) {
        ASSERT_EQ(write(store_end.get(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }

    void read_once() { tovrin_store_read(daemon_end.get(), EV_READ, &inst); }
    void write_once() { tovrin_store_write(daemon_end.get(), EV_WRITE, &inst); }

    // Adds a subscription as a store variable would.
    tovrin_var_sub &subscription(const std::string &key) {
        inst.store_vars.push_front(tovrin_var_sub{key, std::nullopt});
        return inst.store_vars.front();
    }

    unique_fd daemon_end, store_end;
    tovrin_inst inst;
};

TEST_F(StoreLink, StartUpSubscriptionHasTheExactBytes) {
    ASSERT_EQ(inst.store_out_queue.size(), 1u);
    EXPECT_EQ(inst.store_out_queue.front().frame,
              "\x00\x00\x00\x1e"s
              "2\x1etovrin\x1e"
              "config.tovrin.command");
    EXPECT_TRUE(inst.store_write_event.pending());
}

TEST_F(StoreLink, EveryRequestTypeIsFramedLiterally) {
    inst.store_out_queue.clear();
    EXPECT_EQ(tovrin_store_send(&inst, TOVRIN_STORE_SET, "tovrin.wan.status", 2, "up"), 0);
    EXPECT_EQ(tovrin_store_unsubscribe(&inst, "k"), 0);
    EXPECT_EQ(tovrin_store_send(&inst, TOVRIN_STORE_DELETE, "tovrin.x.status", 0, nullptr), 0);
    std::vector<std::string> frames;
    for (const tovrin_store_msg &msg : inst.store_out_queue)
        frames.push_back(msg.frame);
    const std::vector<std::string> expected = {
        "\x00\x00\x00\x18"s
        "1\x1etovrin.wan.status\x1e"
        "2\x1eup",
        "\x00\x00\x00\x0a"s
        "3\x1etovrin\x1ek",
        "\x00\x00\x00\x11"s
        "9\x1etovrin.x.status",
    };
    EXPECT_EQ(frames, expected);
}

TEST_F(StoreLink, UnknownRequestTypeIsRefused) {
    log_capture log;
    EXPECT_EQ(tovrin_store_send(&inst, 8, "k", 1, "v"), -1);
    EXPECT_EQ(inst.store_out_queue.size(), 1u);
    EXPECT_TRUE(log.contains(TOVRIN_LOG_FATAL, "unknown message type"));
}

TEST_F(StoreLink, WriterSendsOneFrameAtATimeInOrderThenStopsAsking) {
    tovrin_store_send(&inst, TOVRIN_STORE_SET, "a", 1, "1");
    tovrin_store_send(&inst, TOVRIN_STORE_SET, "b", 1, "2");
    write_once();
    EXPECT_EQ(store_receive(),
              "\x00\x00\x00\x1e"s
              "2\x1etovrin\x1e"
              "config.tovrin.command");
    write_once();
    write_once();
    EXPECT_EQ(store_receive(),
              "\x00\x00\x00\x07"s
              "1\x1e"
              "a\x1e"
              "1\x1e"
              "1"
              "\x00\x00\x00\x07"s
              "1\x1e"
              "b\x1e"
              "1\x1e"
              "2");
    EXPECT_TRUE(inst.store_write_event.pending());
    write_once();  // finds the queue empty
    EXPECT_FALSE(inst.store_write_event.pending());
}

TEST_F(StoreLink, PartialWriteResumesAndTheNextFrameWaits) {
    log_capture log;
    inst.store_out_queue.clear();
    int small = 4096;
    setsockopt(daemon_end.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    setsockopt(store_end.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);

    std::string big(300000, 'v');
    tovrin_store_send(&inst, TOVRIN_STORE_SET, "big", 1, big.c_str());
    tovrin_store_send(&inst, TOVRIN_STORE_SET, "next", 1, "x");
    const std::string first = inst.store_out_queue[0].frame;
    const std::string second = inst.store_out_queue[1].frame;

    std::string received;
    int writes = 0;
    bool saw_partial = false;
    while (!inst.store_out_queue.empty() && writes < 100000) {
        write_once();
        writes++;
        if (inst.store_out_queue.size() == 2 && inst.store_tx_state > 0)
            saw_partial = true;
        received += store_receive();
        // The second frame never starts before the first is complete.
        if (received.size() < first.size()) {
            EXPECT_EQ(received, first.substr(0, received.size()));
        }
    }
    received += store_receive();
    EXPECT_TRUE(saw_partial);
    EXPECT_GT(writes, 2);
    EXPECT_EQ(received, first + second);
    EXPECT_EQ(inst.store_tx_state, 0);
    // A full socket is a reason to wait, not an error.
    EXPECT_EQ(log.count(TOVRIN_LOG_FATAL, "error writing to stord"), 0);
}

TEST_F(StoreLink, DebugStordTracesEachWrite) {
    log_capture log;
    inst.globals->instance_log_mask |= TOVRIN_INST_LOG_DEBUGSTORD;
    write_once();
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO,
                             "Writing to stord with msg len of 34, tx_len of 0 msg of "
                             "2\x1etovrin\x1e"
                             "config.tovrin.command"));
}

TEST_F(StoreLink, LengthArrivingOneByteAtATimeIsAssembled) {
    tovrin_var_sub &sub = subscription("k");
    std::string frame = value_notification("k", "hello");
    for (int i = 0; i < 4; i++) {
        store_send(frame.substr(static_cast<size_t>(i), 1));
        read_once();
        EXPECT_EQ(inst.store_rx_state, i < 3 ? 1 : 2) << i;
    }
    store_send(frame.substr(4));
    read_once();
    EXPECT_EQ(inst.store_rx_state, 0);
    EXPECT_EQ(sub.current_val, "hello");
}

TEST_F(StoreLink, TwoFramesInOneReadAreHandledOneReadAtATime) {
    tovrin_var_sub &sub = subscription("k");
    store_send(value_notification("k", "first") + value_notification("k", "second"));
    read_once();  // length of the first
    read_once();  // its body: nothing of the second is consumed
    EXPECT_EQ(sub.current_val, "first");
    read_once();
    EXPECT_EQ(sub.current_val, "first");
    read_once();
    EXPECT_EQ(sub.current_val, "second");
}

TEST_F(StoreLink, ValuesKeepSeparatorsAndLoseLineEnds) {
    tovrin_var_sub &sub = subscription("k");
    store_send(value_notification("k",
                                  "a\x1e"
                                  "b"));
    read_once();
    read_once();
    EXPECT_EQ(sub.current_val,
              "a\x1e"
              "b");
    store_send(value_notification("k", "line\r\n"));
    read_once();
    read_once();
    EXPECT_EQ(sub.current_val, "line");
}

TEST_F(StoreLink, DispatchByKey) {
    tovrin_var_sub &one = subscription("shared");
    tovrin_var_sub &two = subscription("shared");
    tovrin_var_sub &other = subscription("shared.longer");

    struct dispatch_case {
        std::string frame;
        std::vector<log_record> log;
    };
    const dispatch_case cases[] = {
        {value_notification("shared", "v1"), {}},
        // Only type 8 is acted upon; anything else goes silently.
        {framed("7\x1eshared\x1e"
                "1\x1e"
                "2\x1eignored"),
         {}},
        {value_notification("unknown.key", "v"),
         {{TOVRIN_LOG_FATAL, "error handling stord message"}}},
        {framed("8\x1eshared"), {{TOVRIN_LOG_FATAL, "error handling stord message"}}},
        // Any key beginning with the command key is a command.
        {value_notification("config.tovrin.commandX", "nosuch,x,start"),
         {{TOVRIN_LOG_FATAL, "control message for invalid conn \"nosuch\" received"},
          {TOVRIN_LOG_FATAL, "error handling stord message"}}},
        {value_notification("config.tovrin.command", "nosuch,start"),
         {{TOVRIN_LOG_FATAL, "invalid control message received"},
          {TOVRIN_LOG_FATAL, "error handling stord message"}}},
    };
    for (const dispatch_case &c : cases) {
        log_capture log;
        store_send(c.frame);
        read_once();
        read_once();
        EXPECT_EQ(log.records(), c.log) << c.frame.substr(4);
    }
    // Both subscriptions on the key got the value; the longer key did not.
    EXPECT_EQ(one.current_val, "v1");
    EXPECT_EQ(two.current_val, "v1");
    EXPECT_EQ(other.current_val, std::nullopt);
}

TEST_F(StoreLink, NothingToReadYetIsNotAnError) {
    log_capture log;
    read_once();
    EXPECT_EQ(inst.store_rx_state, 1);
    store_send(framed("8\x1ek").substr(0, 4));
    read_once();
    read_once();  // body not there yet
    EXPECT_EQ(inst.store_rx_state, 2);
    EXPECT_TRUE(log.records().empty());
}

using StoreLinkDeath = StoreLink;

TEST_F(StoreLinkDeath, ClosedLinkEndsTheProcessWithStatus1) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            store_end.reset();
            read_once();
        },
        ::testing::ExitedWithCode(1), "");
}

TEST_F(StoreLinkDeath, LinkClosedInTheMiddleOfABodyEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            store_send(value_notification("k", "value").substr(0, 8));
            store_end.reset();
            for (int i = 0; i < 10; i++)
                read_once();
        },
        ::testing::ExitedWithCode(1), "");
}

TEST_F(StoreLinkDeath, EmptyBodyCannotSpin) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            store_send(framed(""));
            for (int i = 0; i < 10; i++)
                read_once();
        },
        ::testing::ExitedWithCode(1), "");
}

}  // namespace
