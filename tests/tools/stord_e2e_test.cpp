// stord run as a real process on a private socket, driven through the
// blocking client and raw bytes.

#include <gtest/gtest.h>
#include <signal.h>

#include <map>
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

class stord_e2e : public ::testing::Test {
  protected:
    stord_client connect(const std::string &name = "test") {
        return stord_client(store.socket_path(), name);
    }

    temp_dir dir;
    stord_harness store{dir.file("stord.sock"), dir.file("journal")};
};

// Values of every notification the client has been sent so far. A
// connection's requests are answered in order, so once the sync reply is in,
// whatever a set already applied by the store caused for this client has
// arrived before it.
strings drain(stord_client &client) {
    client.sync();
    strings values;
    while (auto n = client.next_notification(0ms))
        values.push_back(n->second);
    return values;
}

TEST_F(stord_e2e, set_get_dump_and_delete) {
    auto c = connect();
    EXPECT_EQ(c.dump(), (std::map<std::string, std::string>{}));
    c.set("b", "2");
    c.set("a", "one two", 2);
    c.set("b", "3");
    c.set("sep", "x" + RS + "y" + RS);
    EXPECT_EQ(c.get("a"), "one two");
    EXPECT_EQ(c.get("b"), "3");
    EXPECT_EQ(c.get("sep"), "x" + RS + "y" + RS);
    EXPECT_EQ(c.get("missing"), std::nullopt);
    c.del("sep");
    EXPECT_EQ(c.dump(), (std::map<std::string, std::string>{{"a", "one two"}, {"b", "3"}}));
    c.del("b");
    c.del("never-set");
    EXPECT_EQ(c.get("b"), std::nullopt);
    EXPECT_EQ(c.dump(), (std::map<std::string, std::string>{{"a", "one two"}}));
}

TEST_F(stord_e2e, replies_are_exact) {
    auto c = connect();
    auto ask = [&](const std::string &body) {
        c.send_raw(stord_frame_encode(body));
        auto reply = c.next_frame(patience);
        return reply ? *reply : "<no reply>";
    };
    EXPECT_EQ(ask("22"), "23");
    c.set("z", "last");
    c.set("k", "v" + RS + "w");
    c.set("empty", "");
    EXPECT_EQ(ask("20" + RS + "k"), "21" + RS + "k" + RS + "1" + RS + "v" + RS + "w");
    EXPECT_EQ(ask("20" + RS + "empty"), "21" + RS + "empty" + RS + "1" + RS);
    EXPECT_EQ(ask("20" + RS + "nope"), "21" + RS + "nope" + RS + "0");
    EXPECT_EQ(ask("22"),
              "23" + RS + "empty" + RS + RS + "k" + RS + "v" + RS + "w" + RS + "z" + RS + "last");
    EXPECT_EQ(ask("24"), "25");
    EXPECT_EQ(ask("26" + RS + "k"), "27" + RS + "k" + RS + "0");
}

TEST_F(stord_e2e, subscriber_learns_the_current_value_then_every_set) {
    auto writer = connect();
    auto sub = connect();
    writer.set("tovrin.wan.status", "up", 2);
    writer.sync();

    sub.subscribe("tovrin.wan.status");
    auto first = sub.next_frame(patience);
    ASSERT_TRUE(first);
    EXPECT_EQ(*first, "8" + RS + "tovrin.wan.status" + RS + "2" + RS + "1" + RS + "up");

    writer.set("tovrin.wan.status", "down", 1);
    writer.set("tovrin.wan.status.x", "not this key");
    writer.set("tovrin.wan.status", "a" + RS + "b\r\nc");
    struct {
        std::string value;
        long flag;
        std::uint64_t seq;
    } expected[] = {{"down", 1, 2}, {"a" + RS + "b", 1, 4}};
    for (const auto &e : expected) {
        auto n = sub.next_notification_record(patience);
        ASSERT_TRUE(n);
        EXPECT_EQ(n->key, "tovrin.wan.status");
        EXPECT_EQ(n->value, e.value);
        EXPECT_EQ(n->flag, e.flag);
        EXPECT_EQ(n->seq, e.seq);
    }
    writer.sync();
    EXPECT_EQ(drain(sub), strings{});
}

TEST_F(stord_e2e, subscribing_to_an_absent_key_sends_nothing_until_it_is_set) {
    auto writer = connect();
    auto sub = connect();
    writer.set("k", "gone");
    writer.del("k");
    writer.sync();
    sub.subscribe("k");
    EXPECT_EQ(drain(sub), strings{});
    writer.set("k", "now");
    writer.sync();
    EXPECT_EQ(drain(sub), strings{"now"});
}

TEST_F(stord_e2e, subscriptions_are_counted_and_unsubscribe_removes_one) {
    auto writer = connect();
    auto sub = connect();
    sub.subscribe("k");
    sub.subscribe("k");
    sub.sync();
    EXPECT_EQ(writer.count_subscriptions("k"), 2);

    writer.set("k", "v1");
    writer.sync();
    EXPECT_EQ(drain(sub), (strings{"v1", "v1"}));

    sub.unsubscribe("k");
    writer.set("k", "v2");
    writer.sync();
    EXPECT_EQ(drain(sub), strings{"v2"});

    sub.unsubscribe("k");
    sub.unsubscribe("k");  // none left: no-op
    sub.unsubscribe("other");
    writer.set("k", "v3");
    writer.sync();
    EXPECT_EQ(drain(sub), strings{});
    EXPECT_EQ(writer.count_subscriptions("k"), 0);

    // Each subscription to a key that holds a value is answered at once.
    sub.subscribe("k");
    sub.subscribe("k");
    EXPECT_EQ(drain(sub), (strings{"v3", "v3"}));
}

TEST_F(stord_e2e, a_setter_subscribed_to_its_key_hears_itself) {
    auto c = connect();
    c.subscribe("k");
    c.set("k", "mine");
    EXPECT_EQ(drain(c), strings{"mine"});
}

TEST_F(stord_e2e, a_disconnect_drops_only_that_clients_subscriptions) {
    auto stay = connect();
    auto writer = connect();
    stay.subscribe("k");
    stay.sync();
    {
        auto gone = connect();
        gone.subscribe("k");
        gone.subscribe("k");
        gone.sync();
        EXPECT_EQ(writer.count_subscriptions("k"), 3);
    }
    EXPECT_TRUE(wait_until([&] { return writer.count_subscriptions("k") == 1; }, patience));
    writer.set("k", "v");
    writer.sync();
    EXPECT_EQ(drain(stay), strings{"v"});
}

TEST_F(stord_e2e, malformed_requests_are_reported_and_change_nothing) {
    auto bad = connect();  // connection 1
    auto other = connect();
    other.subscribe("k");
    other.set("k", "kept");
    other.sync();
    struct {
        std::string body;
        std::string line;  // what stord writes on stderr
    } cases[] = {
        {"", "non-numeric type: \"\""},
        {"x" + RS + "k", "non-numeric type: \"x<RS>k\""},
        {"-1" + RS + "k", "non-numeric type: \"-1<RS>k\""},
        {"77" + RS + "k", "unknown type 77: \"77<RS>k\""},
        {"8" + RS + "k" + RS + "1" + RS + "1" + RS + "v",
         "unknown type 8: \"8<RS>k<RS>1<RS>1<RS>v\""},
        {"1", "missing fields: \"1\""},
        {"1" + RS + "k", "missing fields: \"1<RS>k\""},
        {"1" + RS + "k" + RS + "1", "missing fields: \"1<RS>k<RS>1\""},
        {"2" + RS + "tovrin", "missing fields: \"2<RS>tovrin\""},
        {"9", "missing fields: \"9\""},
        {"20", "missing fields: \"20\""},
        {"9" + RS + "k" + RS + "extra", "too many fields: \"9<RS>k<RS>extra\""},
        {"3" + RS + "a" + RS + "k" + RS + "c", "too many fields: \"3<RS>a<RS>k<RS>c\""},
        {"1" + RS + RS + "1" + RS + "v", "empty key: \"1<RS><RS>1<RS>v\""},
        {"2" + RS + "tovrin" + RS, "empty key: \"2<RS>tovrin<RS>\""},
        {"1" + RS + "k" + RS + "up" + RS + "v", "non-numeric flag: \"1<RS>k<RS>up<RS>v\""},
        {"1" + RS + "k" + RS + RS + "v", "non-numeric flag: \"1<RS>k<RS><RS>v\""},
        {"5\r\n" + std::string(150, 'a'),
         "non-numeric type: \"5<CR><LF>" + std::string(97, 'a') + "...\""},
    };
    std::string expected_stderr;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        bad.send_raw(stord_frame_encode(c.body));
        bad.sync();
        expected_stderr += "stord: connection 1: ignored request: " + c.line + "\n";
        EXPECT_EQ(store.stderr_text(), expected_stderr);
    }
    EXPECT_EQ(bad.get("k"), "kept");
    EXPECT_EQ(bad.dump(), (std::map<std::string, std::string>{{"k", "kept"}}));
    EXPECT_EQ(bad.count_subscriptions("k"), 1);
    EXPECT_EQ(drain(other), strings{"kept"});
    EXPECT_EQ(store.journal(), (strings{"2 subscribe test k", "2 set k 1 kept"}));
}

TEST_F(stord_e2e, an_oversized_length_drops_that_client_only) {
    auto other = connect();
    other.subscribe("k");
    other.sync();
    auto bad = connect();  // connection 2
    bad.send_raw(std::string("\x01\x00\x00\x01", 4) + "abc");
    EXPECT_TRUE(bad.wait_closed(patience));
    EXPECT_EQ(store.stderr_text(),
              "stord: connection 2: dropped: announced body longer than 16 MiB\n");

    // A body of exactly the limit is still read and answered.
    std::string big = "77" + RS;
    big.resize(stord_frame_max_body, 'x');
    other.send_raw(stord_frame_encode(big));
    other.set("k", "after");
    EXPECT_EQ(drain(other), strings{"after"});
    EXPECT_NE(store.stderr_text().find("stord: connection 1: ignored request: unknown type 77"),
              std::string::npos);
}

TEST_F(stord_e2e, frames_arriving_a_byte_at_a_time_are_assembled) {
    auto c = connect();
    // Proves that waiting for the store to drain a byte means it read it:
    // with the store stopped, a written byte stays queued.
    ASSERT_EQ(::kill(store.pid(), SIGSTOP), 0);
    c.send_raw(stord_frame_encode("").substr(0, 1));
    EXPECT_FALSE(c.wait_drained(50ms));
    ASSERT_EQ(::kill(store.pid(), SIGCONT), 0);
    ASSERT_TRUE(c.wait_drained(patience));

    std::string stream = stord_frame_encode("").substr(1) +
                         stord_frame_encode(stord_frame_join({"1", "k", "2", "a" + RS + "b"})) +
                         stord_frame_encode("20" + RS + "k");
    for (char byte : stream) {
        c.send_raw(std::string(1, byte));
        ASSERT_TRUE(c.wait_drained(patience));
    }
    auto reply = c.next_frame(patience);
    ASSERT_TRUE(reply);
    EXPECT_EQ(*reply, "21" + RS + "k" + RS + "1" + RS + "a" + RS + "b");
    // The empty frame the stream began with is the one malformed request.
    EXPECT_EQ(store.stderr_text(),
              "stord: connection 1: ignored request: non-numeric type: \"\"\n");
    EXPECT_EQ(store.journal(), strings{"1 set k 2 a<RS>b"});
}

TEST_F(stord_e2e, journal_records_requests_in_order_with_exact_text) {
    auto daemon = connect("tovrin");  // connection 1
    auto tool = connect("other");     // connection 2
    daemon.set("tovrin.wan.status", "waiting to start", 2);
    daemon.subscribe("config.tovrin.command");
    daemon.sync();
    tool.set("x", "a" + RS + "b\nc\rd");
    tool.sync();
    daemon.get("x");
    daemon.dump();
    daemon.count_subscriptions("x");
    daemon.unsubscribe("config.tovrin.command");
    daemon.del("tovrin.wan.status");
    daemon.sync();
    EXPECT_EQ(store.journal(), (strings{
                                   "1 set tovrin.wan.status 2 waiting to start",
                                   "1 subscribe tovrin config.tovrin.command",
                                   "2 set x 1 a<RS>b<LF>c<CR>d",
                                   "1 unsubscribe tovrin config.tovrin.command",
                                   "1 delete tovrin.wan.status",
                               }));
    EXPECT_EQ(store.stderr_text(), "");
}

TEST_F(stord_e2e, harness_helpers_see_what_clients_do) {
    store.set("k", "v", 2);
    EXPECT_EQ(store.get("k"), "v");
    EXPECT_TRUE(store.wait_value("k", "v", patience));
    EXPECT_FALSE(store.wait_value("k", "other", 50ms));
    EXPECT_TRUE(store.wait_journal(
        [](const strings &lines) { return !lines.empty() && lines[0] == "1 set k 2 v"; },
        patience));
}

TEST(stord_process, exits_cleanly_on_sigterm_and_sigint_and_removes_its_socket) {
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig);
        temp_dir dir;
        child_process stord = child_process::start({TOVRIN_STORD_BIN, dir.file("s")},
                                                   dir.file("out"), dir.file("err"));
        ASSERT_TRUE(wait_until([&] { return dir.exists("s"); }, patience));
        ASSERT_TRUE(wait_until([&] { return !dir.read_file("out").empty(); }, patience));
        EXPECT_EQ(dir.read_file("out"), "stord: listening on " + dir.file("s") + "\n");

        // Leave state behind for the clean-up to free: a value, a
        // subscription and half a frame.
        stord_client c(dir.file("s"));
        c.set("k", "v");
        c.subscribe("k");
        c.sync();
        c.send_raw(stord_frame_encode("1" + RS + "k").substr(0, 5));
        ASSERT_TRUE(c.wait_drained(patience));

        stord.kill(sig);
        EXPECT_EQ(stord.wait_exit(patience), 0) << dir.read_file("err");
        EXPECT_FALSE(dir.exists("s"));
        EXPECT_TRUE(c.wait_closed(patience));
    }
}

TEST(stord_process, start_up_failures_exit_with_a_message) {
    temp_dir dir;
    dir.write_file("plain", "not a socket");
    struct {
        std::vector<std::string> args;
        int status;
        std::string message;
    } cases[] = {
        {{}, 2, "usage: stord SOCKET_PATH [--journal FILE]\n"},
        {{dir.file("s"), "--journal"}, 2, "usage: stord SOCKET_PATH [--journal FILE]\n"},
        {{dir.file("s"), "--verbose"}, 2, "usage: stord SOCKET_PATH [--journal FILE]\n"},
        {{dir.file("s"), dir.file("t")}, 2, "usage: stord SOCKET_PATH [--journal FILE]\n"},
        {{dir.file("missing/s")},
         1,
         "stord: cannot bind " + dir.file("missing/s") + ": No such file or directory\n"},
        {{dir.file("plain")},
         1,
         "stord: cannot bind " + dir.file("plain") + ": Address already in use\n"},
        {{dir.file("s"), "--journal", dir.file("missing/j")},
         1,
         "stord: cannot open journal " + dir.file("missing/j") + ": No such file or directory\n"},
        {{std::string(200, 'x')},
         1,
         "stord: socket path is empty or too long: " + std::string(200, 'x') + "\n"},
    };
    int run = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        std::vector<std::string> argv{TOVRIN_STORD_BIN};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        std::string err = "err" + std::to_string(run++);
        child_process stord = child_process::start(argv, dir.file("out"), dir.file(err));
        EXPECT_EQ(stord.wait_exit(patience), c.status);
        EXPECT_EQ(dir.read_file(err), c.message);
    }
    EXPECT_EQ(dir.read_file("out"), "");
    EXPECT_EQ(dir.read_file("plain"), "not a socket");
    EXPECT_FALSE(dir.exists("s"));
}

TEST(stord_process, a_stale_socket_file_is_replaced_and_a_live_one_is_not) {
    temp_dir dir;
    {
        stord_harness first(dir.file("s"), dir.file("j1"));
        first.set("k", "old");
        first.kill();
        EXPECT_FALSE(first.running());
    }
    ASSERT_TRUE(dir.exists("s"));
    stord_harness second(dir.file("s"), dir.file("j2"));
    EXPECT_EQ(second.get("k"), std::nullopt);
    second.set("k", "new");

    // A socket someone answers on is not stale: a third store backs off.
    child_process third =
        child_process::start({TOVRIN_STORD_BIN, dir.file("s")}, dir.file("out3"), dir.file("err3"));
    EXPECT_EQ(third.wait_exit(patience), 1);
    EXPECT_EQ(dir.read_file("err3"),
              "stord: another store is listening on " + dir.file("s") + "\n");
    EXPECT_EQ(second.get("k"), "new");
}

}  // namespace
