// stord run as a real process on a private socket, driven through the
// blocking client and raw bytes: what each request does, and the journal.

#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <string>
#include <vector>

#include "stord/client.h"
#include "stord/frame.h"
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

// The same with the keys the notifications named.
strings drain_keys(stord_client &client) {
    client.sync();
    strings keys;
    while (auto n = client.next_notification(0ms))
        keys.push_back(n->first);
    return keys;
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
    // A pattern watch has no reply: the next frame is the sync's.
    c.send_raw(stord_frame_encode("28" + RS + "*"));
    EXPECT_EQ(ask("24"), "25");
    // Nor does the notification it causes differ from a subscriber's.
    c.set("k", "x", 3);
    auto n = c.next_frame(patience);
    ASSERT_TRUE(n);
    EXPECT_EQ(*n, "8" + RS + "k" + RS + "3" + RS + "4" + RS + "x");
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

TEST_F(stord_e2e, a_pattern_watch_hears_every_set_of_a_matching_key) {
    using keys = std::vector<std::pair<std::string, bool>>;  // key, matches
    struct {
        std::string pattern;
        keys sets;
    } cases[] = {
        {"tovrin.*.status",
         {{"tovrin.wan.status", true},
          {"tovrin.wan.status.x", false},
          {"tovrin.lan.status", true},
          {"tovrin.status", false},
          {"xtovrin.wan.status", false},
          {"tovrin.wan.sub.status", true},
          {"tovrin..status", true}}},
        {"tovrin.?an.status",
         {{"tovrin.wan.status", true}, {"tovrin.wwan.status", false}, {"tovrin.an.status", false}}},
        {"[cd]*", {{"config.tovrin.command", true}, {"e.c", false}, {"d", true}}},
        {"exact.key", {{"exact.key", true}, {"exact.keys", false}, {"exact_key", false}}},
        {"a\\*b", {{"axb", false}, {"a*b", true}}},
        // No flags: a star crosses slashes and takes leading dots.
        {"*", {{"a/b", true}, {".hidden", true}}},
    };
    auto writer = connect("writer");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.pattern);
        auto watcher = connect("watcher");
        watcher.watch_pattern(c.pattern);
        watcher.sync();
        strings expected;
        for (const auto &[key, matches] : c.sets) {
            writer.set(key, "v");
            if (matches)
                expected.push_back(key);
        }
        writer.sync();
        EXPECT_EQ(drain_keys(watcher), expected);
    }
}

TEST_F(stord_e2e, a_pattern_watch_sends_one_notification_per_set_and_no_current_values) {
    auto writer = connect("writer");
    auto watcher = connect("watcher");
    auto bystander = connect("bystander");
    writer.set("tovrin.wan.status", "before");
    writer.sync();

    // Two patterns matching the same key still make one notification per
    // set, and the value already there is not sent.
    watcher.watch_pattern("tovrin.*");
    watcher.watch_pattern("*.status");
    watcher.watch_pattern("tovrin.*");
    EXPECT_EQ(drain(watcher), strings{});
    writer.set("tovrin.wan.status", "up", 2);
    auto n = watcher.next_notification_record(patience);
    ASSERT_TRUE(n);
    EXPECT_EQ(n->key, "tovrin.wan.status");
    EXPECT_EQ(n->value, "up");
    EXPECT_EQ(n->flag, 2);
    EXPECT_EQ(n->seq, 2u);
    EXPECT_EQ(drain(watcher), strings{});

    // A subscription to the key adds its own notification; a delete sends
    // none.
    watcher.subscribe("tovrin.wan.status");
    EXPECT_EQ(drain(watcher), strings{"up"});
    writer.set("tovrin.wan.status", "down");
    writer.del("tovrin.wan.status");
    writer.sync();
    EXPECT_EQ(drain(watcher), (strings{"down", "down"}));

    // The watch belongs to its connection alone, and holds no
    // subscription.
    EXPECT_EQ(drain(bystander), strings{});
    EXPECT_EQ(writer.count_subscriptions("tovrin.wan.status"), 1);
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
    daemon.watch_pattern("tovrin.*\n");
    daemon.unsubscribe("config.tovrin.command");
    daemon.del("tovrin.wan.status");
    daemon.sync();
    tool.send_raw(stord_frame_encode("77" + RS + "k"));
    EXPECT_TRUE(tool.wait_closed(patience));
    EXPECT_EQ(store.journal(), (strings{
                                   "1 set tovrin.wan.status 2 waiting to start",
                                   "1 subscribe tovrin config.tovrin.command",
                                   "1 sync",
                                   "2 set x 1 a<RS>b<LF>c<CR>d",
                                   "2 sync",
                                   "1 get x",
                                   "1 dump",
                                   "1 count x",
                                   "1 watch tovrin.*<LF>",
                                   "1 unsubscribe tovrin config.tovrin.command",
                                   "1 delete tovrin.wan.status",
                                   "1 sync",
                                   "2 rejected unknown type 77",
                               }));
    EXPECT_EQ(store.stderr_text(), "stord: connection 2: dropped: unknown type 77: \"77<RS>k\"\n");
}

TEST_F(stord_e2e, harness_helpers_see_what_clients_do) {
    store.set("k", "v", 2);
    EXPECT_EQ(store.get("k"), "v");
    EXPECT_TRUE(store.wait_value("k", "v", patience));
    EXPECT_FALSE(store.wait_value("k", "other", 50ms));
    // Each helper call is a connection of its own.
    EXPECT_TRUE(store.wait_journal(
        [](const strings &lines) {
            return lines == strings{"1 set k 2 v", "1 sync", "2 get k",
                                    "3 subscribe stord_client k", "4 subscribe stord_client k"};
        },
        patience))
        << testing::PrintToString(store.journal());
}

}  // namespace
