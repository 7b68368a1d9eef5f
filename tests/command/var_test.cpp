#include "command/var.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "daemon/log_mask.h"
#include "platform/unique_fd.h"
#include "store/store_link.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "support/log_capture.h"

namespace {

using namespace std::string_literals;
using maybe = std::optional<std::string>;

// An initialised instance whose store link is one end of a socket pair, so
// subscriptions are queued as the daemon queues them.
class Variables : public ::testing::Test {
  protected:
    void SetUp() override {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        daemon_end.reset(pair[0]);
        store_end.reset(pair[1]);
        ASSERT_EQ(fcntl(daemon_end.get(), F_SETFL, O_NONBLOCK), 0);
        ASSERT_EQ(fcntl(store_end.get(), F_SETFL, O_NONBLOCK), 0);
        ASSERT_NE(tovrin_inst_init(daemon_end.get(), &inst), nullptr);
        inst.new_globals = tovrin_globals_new();
        // Only the frames a test causes.
        inst.store_out_queue.clear();
    }

    tovrin_conn *add(const std::string &name, int type = TOVRIN_CONN,
                     const std::vector<std::string> &parents = {}) {
        tovrin_conn *conn =
            inst.conns.push_back(tovrin_conn_new(&inst, name, type, 60, 30, 30, 30, 1, -1, 0));
        conn->log_mask = 0;
        for (const std::string &parent : parents)
            tovrin_conn_add_parent(conn, parent);
        return conn;
    }

    tovrin_conn *find(const std::string &name) { return inst.conns.find(name); }

    std::vector<std::string> queued_frames() {
        std::vector<std::string> out;
        for (const tovrin_store_msg &msg : inst.store_out_queue)
            out.push_back(msg.frame);
        return out;
    }

    std::vector<std::string> subscribed_keys() {
        std::vector<std::string> out;
        for (const tovrin_var_sub &sub : inst.store_vars)
            out.push_back(sub.stord_prefix);
        return out;
    }

    unique_fd daemon_end, store_end;
    tovrin_inst inst;
};

std::string framed(const std::string &body) {
    uint32_t n = static_cast<uint32_t>(body.size());
    std::string frame;
    frame += static_cast<char>(n >> 24);
    frame += static_cast<char>(n >> 16);
    frame += static_cast<char>(n >> 8);
    frame += static_cast<char>(n);
    return frame + body;
}

TEST(VarIndex, IsTheUnsignedByteSumModuloFive) {
    const struct {
        std::string name;
        int index;
    } cases[] = {
        {"", 0},
        {"a", 97 % 5},
        {"ab", 195 % 5},
        {"ba", 195 % 5},
        {"x", 120 % 5},
        // Bytes count as unsigned: a signed sum would give 2 and 1.
        {"\x80", 128 % 5},
        {"\xff\x01", 256 % 5},
        {std::string(1000, '\xff'), (1000 * 255) % 5},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name.size());
        EXPECT_EQ(tovrin_var_index(c.name), c.index);
    }
}

TEST_F(Variables, NewVariablesGoToTheHeadOfTheirList) {
    tovrin_conn *conn = add("wan");
    ASSERT_EQ(tovrin_conn_add_var(conn, "dns", "1.1.1.1"), 0);
    ASSERT_EQ(tovrin_conn_add_var(conn, "dns", "9.9.9.9"), 0);
    const tovrin_var_list &list = conn->vars[tovrin_var_index("dns")];
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list.front()->value, "9.9.9.9");
    EXPECT_EQ(list.front()->type, TOVRIN_VAR_PLAIN);
    EXPECT_EQ(list.back()->value, "1.1.1.1");
    // The later definition wins.
    EXPECT_EQ(tovrin_var_expand(conn, "dns"), maybe("9.9.9.9"));
}

TEST_F(Variables, NamesWithTheSameIndexAreBothFound) {
    tovrin_conn *conn = add("wan");
    ASSERT_EQ(tovrin_conn_add_var(conn, "ab", "first"), 0);
    ASSERT_EQ(tovrin_conn_add_var(conn, "ba", "second"), 0);
    EXPECT_EQ(conn->vars[tovrin_var_index("ab")].size(), 2u);
    EXPECT_EQ(tovrin_var_expand(conn, "ab"), maybe("first"));
    EXPECT_EQ(tovrin_var_expand(conn, "ba"), maybe("second"));
    // Names are compared exactly.
    EXPECT_EQ(tovrin_var_expand(conn, "AB"), std::nullopt);
    EXPECT_EQ(tovrin_var_expand(conn, "a"), std::nullopt);
}

TEST_F(Variables, DebugMessagesNeedTheDebugWordOfTheConnSearched) {
    for (bool debug : {false, true}) {
        SCOPED_TRACE(debug);
        inst.conns.clear();
        tovrin_conn *conn = add("wan");
        conn->log_mask =
            debug ? TOVRIN_LOG_DEBUG_WORD : TOVRIN_CONN_LOG_ALL & ~TOVRIN_LOG_DEBUG_WORD;
        log_capture log;
        ASSERT_EQ(tovrin_conn_add_var(conn, "ab", "1"), 0);
        ASSERT_EQ(tovrin_conn_add_var(conn, "ba", "2"), 0);
        bool found = false;
        EXPECT_EQ(tovrin_var_lookup_local(conn, "ab", std::nullopt, found), maybe("1"));
        EXPECT_TRUE(found);
        std::vector<log_record> expected;
        if (debug) {
            expected = {
                {TOVRIN_LOG_INFO, "Inserting var ab in index 0"},
                {TOVRIN_LOG_INFO, "Inserting var ba in index 0"},
                {TOVRIN_LOG_INFO, "Looking for var ab in index 0"},
                {TOVRIN_LOG_INFO, "Found ba - comparing to ab"},
                {TOVRIN_LOG_INFO, "Found ab - comparing to ab"},
            };
        }
        EXPECT_EQ(log.records(), expected);
    }
}

TEST_F(Variables, LookupJoinsWithOneBlankOnlyAfterPresentText) {
    tovrin_conn *conn = add("wan");
    ASSERT_EQ(tovrin_conn_add_var(conn, "v", "val"), 0);
    ASSERT_EQ(tovrin_conn_add_var(conn, "e", ""), 0);
    const struct {
        const char *name;
        maybe text;
        maybe expected;
        bool found;
    } cases[] = {
        {"v", std::nullopt, "val", true}, {"v", "a", "a val", true},
        {"v", "", " val", true},          {"e", std::nullopt, "", true},
        {"e", "a", "a ", true},           {"none", std::nullopt, std::nullopt, false},
        {"none", "a", "a", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        bool found = false;
        EXPECT_EQ(tovrin_var_lookup_local(conn, c.name, c.text, found), c.expected);
        EXPECT_EQ(found, c.found);
    }
    // Without a match the flag is left as it was.
    bool found = true;
    EXPECT_EQ(tovrin_var_lookup_local(conn, "none", std::nullopt, found), std::nullopt);
    EXPECT_TRUE(found);
}

TEST_F(Variables, StoreVariableSubscribesAndFollowsItsKey) {
    tovrin_conn *conn = add("wan");
    ASSERT_EQ(tovrin_conn_add_stord_var(conn, "ip", "net.wan.ip"), 0);
    ASSERT_EQ(tovrin_conn_add_stord_var(conn, "gw", "net.wan.gw"), 0);
    EXPECT_EQ(queued_frames(), (std::vector<std::string>{
                                   framed("2\x1etovrin\x1enet.wan.ip"),
                                   framed("2\x1etovrin\x1enet.wan.gw"),
                               }));
    EXPECT_TRUE(inst.store_write_event.pending());
    // Newest first; each variable points at its own subscription.
    EXPECT_EQ(subscribed_keys(), (std::vector<std::string>{"net.wan.gw", "net.wan.ip"}));
    // Both names sum to the same index; gw, the newer, comes first.
    const tovrin_var_list &list = conn->vars[tovrin_var_index("ip")];
    ASSERT_EQ(list.size(), 2u);
    const tovrin_var &gw = *list.front();
    const tovrin_var &ip = *list.back();
    EXPECT_EQ(gw.name, "gw");
    EXPECT_EQ(ip.name, "ip");
    EXPECT_EQ(ip.type, TOVRIN_VAR_STORD);
    EXPECT_EQ(gw.sub, inst.store_vars.begin());
    EXPECT_EQ(ip.sub, std::next(inst.store_vars.begin()));
    EXPECT_FALSE(ip.sub->current_val.has_value());

    // No value yet: found, but nothing to expand.
    bool found = false;
    EXPECT_EQ(tovrin_var_lookup_local(conn, "ip", std::nullopt, found), std::nullopt);
    EXPECT_TRUE(found);

    // A value notification from the store reaches the variable.
    std::string notification = framed(
        "8\x1enet.wan.ip\x1e"
        "2\x1e"
        "17\x1e"
        "10.0.0.2");
    ASSERT_EQ(write(store_end.get(), notification.data(), notification.size()),
              static_cast<ssize_t>(notification.size()));
    tovrin_store_read(daemon_end.get(), EV_READ, &inst);  // the length
    tovrin_store_read(daemon_end.get(), EV_READ, &inst);  // the body
    EXPECT_EQ(tovrin_var_expand(conn, "ip"), maybe("10.0.0.2"));
    EXPECT_EQ(tovrin_var_expand(conn, "gw"), std::nullopt);
}

TEST_F(Variables, FreeingUnsubscribesAndUnlinksOnlyTheConnsOwnSubscriptions) {
    tovrin_conn *wan = add("wan");
    tovrin_conn *lan = add("lan");
    ASSERT_EQ(tovrin_conn_add_stord_var(lan, "ip", "shared"), 0);
    ASSERT_EQ(tovrin_conn_add_stord_var(wan, "ip", "shared"), 0);
    ASSERT_EQ(tovrin_conn_add_var(wan, "plain", "x"), 0);
    ASSERT_EQ(tovrin_conn_add_stord_var(wan, "gw", "wan.gw"), 0);
    ASSERT_EQ(tovrin_conn_add_stord_var(lan, "gw", "lan.gw"), 0);
    inst.store_vars.front().current_val = "lan value";
    inst.store_out_queue.clear();

    tovrin_conn_vars_free(wan);
    for (const tovrin_var_list &list : wan->vars)
        EXPECT_TRUE(list.empty());
    std::vector<std::string> frames = queued_frames();
    std::sort(frames.begin(), frames.end());
    EXPECT_EQ(frames, (std::vector<std::string>{
                          framed("3\x1etovrin\x1eshared"),
                          framed("3\x1etovrin\x1ewan.gw"),
                      }));
    // lan's subscriptions stay, in their order and with their values.
    EXPECT_EQ(subscribed_keys(), (std::vector<std::string>{"lan.gw", "shared"}));
    EXPECT_EQ(inst.store_vars.front().current_val, maybe("lan value"));
    EXPECT_EQ(lan->vars[tovrin_var_index("gw")].front()->sub, inst.store_vars.begin());
    EXPECT_EQ(tovrin_var_expand(lan, "gw"), maybe("lan value"));

    // Freeing again finds nothing to do.
    inst.store_out_queue.clear();
    tovrin_conn_vars_free(wan);
    EXPECT_TRUE(inst.store_out_queue.empty());

    tovrin_conn_vars_free(lan);
    EXPECT_TRUE(inst.store_vars.empty());
    EXPECT_EQ(inst.store_out_queue.size(), 2u);
}

TEST_F(Variables, VarsInitEmptiesTheLists) {
    tovrin_conn *conn = add("wan");
    ASSERT_EQ(tovrin_conn_add_var(conn, "a", "1"), 0);
    ASSERT_EQ(tovrin_conn_add_var(conn, "b", "2"), 0);
    tovrin_conn_vars_init(conn);
    for (const tovrin_var_list &list : conn->vars)
        EXPECT_TRUE(list.empty());
}

// A small configuration whose conns exercise every strategy.
class Strategies : public Variables {
  protected:
    void SetUp() override {
        Variables::SetUp();
        var(add("gp"), "x", "gp");
        var(find("gp"), "a:b", "colon");
        add("p1", TOVRIN_CONN, {"gp"});
        var(add("p2"), "x", "p2");
        var(add("p3"), "x", "p3");
        add("kid", TOVRIN_CONN, {"p1", "p2"});
        var(add("own", TOVRIN_CONN, {"p1", "p2"}), "x", "own");
        add("both", TOVRIN_CONN, {"p2", "p3"});
        ASSERT_EQ(tovrin_conn_add_stord_var(add("silent", TOVRIN_CONN, {"p2"}), "x", "k"), 0);
        ASSERT_EQ(tovrin_conn_add_stord_var(add("fed", TOVRIN_CONN, {"p2"}), "x", "k2"), 0);
        inst.store_vars.front().current_val = "fed value";
        add("plain", TOVRIN_CONN, {"p2"});
        add("ghostkid", TOVRIN_CONN, {"ghost", "p2"});
        // A group searches its active member, never its other members.
        tovrin_conn *grp = add("grp", TOVRIN_ANYGROUP, {"p3"});
        tovrin_group_add_member(grp, "m1");
        tovrin_group_add_member(grp, "m2");
        grp->active_conn_name = "m2";
        var(add("m1"), "x", "m1");
        var(add("m2"), "x", "m2");
        add("idle", TOVRIN_ORDEREDGROUP, {"p3"});
        add("lost", TOVRIN_ANYGROUP, {"p3"})->active_conn_name = "nobody";
        // A chain of groups down to the holder.
        add("g1", TOVRIN_ORDEREDGROUP)->active_conn_name = "g2";
        add("g2", TOVRIN_ANYGROUP)->active_conn_name = "deep";
        var(add("deep"), "x", "deep");
        // A plain conn's active member name means nothing.
        add("odd", TOVRIN_CONN)->active_conn_name = "m1";
        // A diamond: the shared ancestor is searched once per path.
        add("dia", TOVRIN_CONN, {"left", "right"});
        add("left", TOVRIN_CONN, {"top"});
        add("right", TOVRIN_CONN, {"top"});
        var(add("top", TOVRIN_CONN, {"ghost"}), "x", "top");
    }

    void var(tovrin_conn *conn, const std::string &name, const std::string &value) {
        ASSERT_EQ(tovrin_conn_add_var(conn, name, value), 0);
    }
};

struct strategy_case {
    const char *conn;
    const char *reference;
    maybe expected;
    std::vector<std::string> messages;  // all at priority 0
};

TEST_F(Strategies, EachStrategyVisitsItsHolders) {
    const strategy_case cases[] = {
        // first, depth first: p1's ancestry before p2.
        {"kid", "x", "gp", {}},
        {"kid", "first:x", "gp", {}},
        {"plain", "x", "p2", {}},
        {"own", "x", "own", {}},
        {"kid", "nothing", std::nullopt, {}},
        // all collects, in the order visited, unless the conn holds the name.
        {"kid", "all:x", "gp p2", {}},
        {"both", "all:x", "p2 p3", {}},
        {"own", "all:x", "own", {}},
        // parents_all ignores the conn's own value.
        {"own", "parents_all:x", "gp p2", {}},
        {"p2", "parents_all:x", std::nullopt, {}},
        // local stays in the conn and its chain of active members.
        {"plain", "local:x", std::nullopt, {}},
        {"own", "local:x", "own", {}},
        {"g1", "local:x", "deep", {}},
        {"g1", "x", "deep", {}},
        {"odd", "local:x", std::nullopt, {}},
        {"odd", "x", std::nullopt, {}},
        // Strategy names match as prefixes; unknown ones fall back to first.
        {"kid", "allx:x", "gp p2", {}},
        {"kid", "localfoo:x", std::nullopt, {}},
        {"kid", "foo:x", "gp", {}},
        {"kid", "all:a:b", "colon", {}},
        // The name is what follows the first colon, so a name holding a
        // colon needs a strategy in front.
        {"kid", "a:b", std::nullopt, {}},
        {"kid", "first:", std::nullopt, {}},
        // A store variable without a value ends first and hides ancestry in
        // all; one with a value expands to it.
        {"silent", "x", std::nullopt, {}},
        {"silent", "all:x", std::nullopt, {}},
        {"silent", "parents_all:x", "p2", {}},
        {"fed", "x", "fed value", {}},
        {"fed", "all:x", "fed value", {}},
        // A group: the active member, then the group's parents.
        {"grp", "x", "m2", {}},
        {"grp", "all:x", "m2 p3", {}},
        {"grp", "local:x", "m2", {}},
        {"idle", "x", "p3", {}},
        {"idle", "local:x", std::nullopt, {}},
        {"lost", "x", "p3", {"couldn't find conn: nobody"}},
        {"lost", "local:x", std::nullopt, {"couldn't find conn: nobody"}},
        // Names that do not resolve are reported and skipped.
        {"ghostkid", "x", "p2", {"couldn't find conn: ghost"}},
        {"ghostkid", "all:x", "p2", {"couldn't find conn: ghost"}},
        // A diamond is not a cycle: its top is searched on both paths.
        {"dia", "x", "top", {}},
        {"dia", "all:x", "top top", {}},
        {"dia", "parents_all:x", "top top", {}},
        {"dia", "y", std::nullopt, {"couldn't find conn: ghost", "couldn't find conn: ghost"}},
    };
    for (const strategy_case &c : cases) {
        SCOPED_TRACE(std::string(c.conn) + " " + c.reference);
        log_capture log;
        EXPECT_EQ(tovrin_var_expand(find(c.conn), c.reference), c.expected);
        std::vector<log_record> expected;
        for (const std::string &m : c.messages)
            expected.push_back({TOVRIN_LOG_FATAL, m});
        EXPECT_EQ(log.records(), expected);
    }
}

TEST_F(Strategies, UnknownStrategyIsReportedUnderTheDebugWordOfTheTokenizedConn) {
    // Debug on an ancestor only: its lookups are traced, the fallback is not.
    find("gp")->log_mask = TOVRIN_LOG_DEBUG_WORD;
    {
        log_capture log;
        EXPECT_EQ(tovrin_var_expand(find("kid"), "foo:x"), maybe("gp"));
        EXPECT_EQ(log.records(), (std::vector<log_record>{
                                     {TOVRIN_LOG_INFO, "Looking for var x in index 0"},
                                     {TOVRIN_LOG_INFO, "Found x - comparing to x"},
                                 }));
    }
    find("gp")->log_mask = 0;
    find("kid")->log_mask = TOVRIN_LOG_DEBUG_WORD;
    {
        log_capture log;
        EXPECT_EQ(tovrin_var_expand(find("kid"), "foo:x"), maybe("gp"));
        EXPECT_EQ(log.records(),
                  (std::vector<log_record>{
                      {TOVRIN_LOG_INFO, "Unknown search strategy found foo:x - reverting to first"},
                      {TOVRIN_LOG_INFO, "Looking for var x in index 0"},
                  }));
    }
}

TEST_F(Strategies, DebugLinesFollowEveryPathThroughADiamond) {
    find("top")->log_mask = TOVRIN_LOG_DEBUG_WORD;
    const log_record ghost{TOVRIN_LOG_FATAL, "couldn't find conn: ghost"};
    const log_record look_y{TOVRIN_LOG_INFO, "Looking for var y in index 1"};
    const log_record look_x{TOVRIN_LOG_INFO, "Looking for var x in index 0"};
    const log_record found_x{TOVRIN_LOG_INFO, "Found x - comparing to x"};
    log_capture log;
    EXPECT_EQ(tovrin_var_expand(find("dia"), "first:y"), std::nullopt);
    EXPECT_EQ(log.records(), (std::vector<log_record>{look_y, ghost, look_y, ghost}));
    log.clear();
    EXPECT_EQ(tovrin_var_expand(find("dia"), "all:x"), maybe("top top"));
    EXPECT_EQ(log.records(), (std::vector<log_record>{look_x, found_x, look_x, found_x}));
}

TEST_F(Strategies, SearchFunctionsReportWhetherTheyFound) {
    bool found = true;
    EXPECT_EQ(tovrin_var_search_first(find("kid"), "nothing", std::nullopt, found), std::nullopt);
    EXPECT_FALSE(found);
    EXPECT_EQ(tovrin_var_search_first(find("kid"), "x", "pre"s, found), maybe("pre gp"));
    EXPECT_TRUE(found);
    EXPECT_EQ(tovrin_var_search_local(find("g1"), "x", std::nullopt, found), maybe("deep"));
    EXPECT_TRUE(found);
    EXPECT_EQ(tovrin_var_search_all(find("both"), "x", "pre"s, found), maybe("pre p2 p3"));
    EXPECT_EQ(tovrin_var_search_parents_all(find("own"), "x", std::nullopt, found), maybe("gp p2"));
    EXPECT_EQ(tovrin_var_search_first(nullptr, "x", "kept"s, found), maybe("kept"));
    EXPECT_FALSE(found);
    EXPECT_EQ(tovrin_var_expand(nullptr, "x"), std::nullopt);
}

}  // namespace
