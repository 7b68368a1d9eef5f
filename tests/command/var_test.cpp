#include "command/var.h"

#include "support/test_inst.h"

using maybe = std::optional<std::string>;

// Conns whose ancestries exercise every strategy, and some that loop.
const char world[] =
    "conn gp\n\tvar x gp\n\tvar a:b colon\nconn p1\n\tparent gp\nconn p2\n\tvar x p2\n"
    "conn p3\n\tvar x p3\nconn kid\n\tparent p1\n\tparent p2\n"
    "conn own\n\tparent p1\n\tparent p2\n\tvar x own\nconn both\n\tparent p2\n\tparent p3\n"
    "conn later\n\tvar x first\n\tvar x second\n\tvar ab one\n\tvar ba two\n"
    "conn silent\n\tparent p2\n\tstord_var x k\nconn fed\n\tparent p2\n\tstord_var x k2\n"
    "anygroup grp\n\tparent p3\n\tmember m1\n\tmember m2\nconn m1\n\tvar x m1\nconn m2\n\tvar x "
    "m2\n"
    "orderedgroup idle\n\tparent p3\n"
    "orderedgroup g1\nanygroup g2\nconn deep\n\tvar x deep\n"
    "conn dia\n\tparent left\n\tparent right\nconn left\n\tparent top\nconn right\n\tparent top\n"
    "conn top\n\tvar x top\n\tparent gone\n"
    "conn self\n\tparent self\n\tparent p2\nconn r1\n\tparent r2\nconn r2\n\tparent r3\n"
    "conn r3\n\tparent r1\n\tparent p3\nanygroup loop1\nanygroup loop2\n"
    "conn s1\n\tparent s2\n\tvar x s1\nconn s2\n\tparent s1\n";

struct strategy_case {
    const char *conn, *reference;
    maybe expected;
    strings messages = {};  // all at priority 0
};

const maybe none;

static std::string cycle(const char *through) {
    return std::string("variable search for x found a cycle through conn ") + through;
}

// A name's list is the sum of its unsigned bytes modulo five.
TEST(VarSearch, EachStrategyVisitsItsHolders) {
    for (auto [name, sum] : {std::pair{"\x80", 128}, {"\xff\x01", 256}, {"ab", 195}, {"", 0}})
        EXPECT_EQ(tovrin_var_index(name), sum % 5) << name;
    test_inst t(world);
    for (tovrin_conn &conn : t.inst.conns)
        conn.log_mask = 0;
    t.inst.store_vars.front().current_val = "fed value";
    t.conn("grp")->group_part->active_conn_name = "m2";
    t.conn("g1")->group_part->active_conn_name = "g2";
    t.conn("g2")->group_part->active_conn_name = "deep";
    t.conn("loop1")->group_part->active_conn_name = "loop2";
    t.conn("loop2")->group_part->active_conn_name = "loop1";
    // clang-format off
    const strategy_case cases[] = {
        // first, depth first: p1's ancestry before p2; a conn's own value first.
        {"kid", "x", "gp"}, {"kid", "first:x", "gp"}, {"own", "x", "own"},
        {"kid", "nothing", none}, {"later", "x", "second"}, {"later", "ab", "one"},
        {"later", "ba", "two"}, {"later", "AB", none},
        // all collects in the order visited, unless the conn holds the name.
        {"kid", "all:x", "gp p2"}, {"both", "all:x", "p2 p3"}, {"own", "all:x", "own"},
        {"own", "parents_all:x", "gp p2"}, {"p2", "parents_all:x", none},
        // local stays in the conn and its chain of active members.
        {"kid", "local:x", none}, {"g1", "local:x", "deep"}, {"g1", "x", "deep"},
        // Prefixes choose the last matching strategy; unknown ones mean first.
        {"kid", "allx:x", "gp p2"}, {"kid", "localfoo:x", none}, {"kid", "foo:x", "gp"},
        {"kid", "all:a:b", "colon"}, {"kid", "a:b", none},
        // A store variable without a value ends first and hides in all.
        {"silent", "x", none}, {"silent", "all:x", none}, {"silent", "parents_all:x", "p2"},
        {"fed", "all:x", "fed value"},
        // A group searches its active member, then its parents.
        {"grp", "x", "m2"}, {"grp", "all:x", "m2 p3"}, {"idle", "local:x", none},
        // A diamond is searched along both paths.
        {"dia", "x", "top"}, {"dia", "all:x", "top top"},
        // A conn met again on its own path is skipped, said once per search.
        {"self", "x", "p2", {cycle("self")}}, {"self", "all:x", "p2", {cycle("self")}},
        {"r1", "x", "p3", {cycle("r1")}}, {"r1", "all:x", "p3", {cycle("r1")}},
        {"r2", "parents_all:x", "p3", {cycle("r3")}}, {"loop1", "local:x", none, {cycle("loop1")}},
        // parents_all leaves the conn out, unless its parents lead back to it.
        {"s1", "parents_all:x", "s1"},
        {"loop1", "x", none, {cycle("loop1")}},
    };
    // clang-format on
    for (const strategy_case &c : cases) {
        SCOPED_TRACE(std::string(c.conn) + " " + c.reference);
        log_capture log;
        EXPECT_EQ(tovrin_var_expand(t.conn(c.conn), c.reference), c.expected);
        for (const log_record &r : log.records)
            EXPECT_EQ(r.priority, TOVRIN_LOG_FATAL);
        EXPECT_EQ(log.messages(), c.messages);
    }
}

// The debug lines name every look, once per path, under the debug word of
// the conn looked in; the fall-back under the word of the conn expanding.
TEST(VarSearch, DebugLinesFollowTheVisits) {
    test_inst t(
        "conn a\n\tparent b\n\tparent c\n\tlog debug\nconn b\n\tparent top\n\tlog "
        "debug\n\tvar ab 1\n\tvar ba 2\nconn c\n\tparent top\n\tlog none\nconn top\n\t"
        "log debug\n\tvar z t\n");
    log_capture log;
    EXPECT_EQ(tovrin_var_expand(t.conn("a"), "foo:ab"), maybe("1"));
    EXPECT_EQ(tovrin_var_expand(t.conn("a"), "all:z"), maybe("t t"));
    EXPECT_EQ(log.messages(),
              (strings{"Unknown search strategy found foo:ab - reverting to first",
                       "Looking for var ab in index 0", "Looking for var ab in index 0",
                       "Found ba - comparing to ab", "Found ab - comparing to ab",
                       "Looking for var z in index 2", "Looking for var z in index 2",
                       "Looking for var z in index 2", "Found z - comparing to z",
                       "Looking for var z in index 2", "Found z - comparing to z"}));
}

// A ladder of diamonds: rungs conns <prefix>j<i>, each with two parents
// <prefix>l<i> and <prefix>r<i> that share the parent <prefix>j<i + 1>; the
// top holds x. 2^rungs paths lead from the foot to the top.
static std::string ladder(const std::string &prefix, int rungs) {
    std::string text;
    for (int i = 0; i < rungs; i++) {
        const std::string n = std::to_string(i), next = prefix + "j" + std::to_string(i + 1);
        text += "conn " + prefix + "j" + n + "\n\tparent " + prefix + "l" + n + "\n\tparent " +
                prefix + "r" + n + "\nconn " + prefix + "l" + n + "\n\tparent " + next + "\nconn " +
                prefix + "r" + n + "\n\tparent " + next + "\n";
    }
    return text + "conn " + prefix + "j" + std::to_string(rungs) + "\n\tvar x t\n";
}

// Long ancestries are walked without recursion. Fifteen diamonds in a row
// (48 conns, 2^15 paths, 131,069 visits) are walked whole, the values
// collected kept to what a command's token can hold; with a bound of 100,000
// visits the search stops there, said once, with what it had collected.
// (The daemon's own bound takes seconds to reach: bench/var_search.)
TEST(VarSearch, LongChainsAndDiamondLaddersEnd) {
    std::string text;
    for (int i = 0; i < 10000; i++)
        text += "conn c" + std::to_string(i) + "\n\tparent c" + std::to_string(i + 1) + "\n";
    text += "conn c10000\n\tvar x end\n" + ladder("a", 15);
    test_inst t(text);
    log_capture log;
    EXPECT_EQ(tovrin_var_expand(t.conn("c0"), "x"), maybe("end"));
    EXPECT_EQ(tovrin_var_expand(t.conn("c0"), "all:x"), maybe("end"));
    std::string every;
    for (int path = 0; path < 1 << 15; path++)
        every += path == 0 ? "t" : " t";
    EXPECT_EQ(tovrin_var_expand(t.conn("aj0"), "all:x"), maybe(every.substr(0, 1023)));
    t.inst.var_search_max_visits = (4 << 15) - 3;
    EXPECT_EQ(tovrin_var_expand(t.conn("aj0"), "all:x"), maybe(every.substr(0, 1023)));
    EXPECT_TRUE(log.records.empty());
    t.inst.var_search_max_visits = 100000;
    maybe cut = tovrin_var_expand(t.conn("aj0"), "all:x");
    ASSERT_TRUE(cut.has_value());
    EXPECT_EQ(cut->substr(0, 4), "t t ");
    EXPECT_EQ(log.messages(),
              (strings{"variable search for x stopped after visiting 100000 conns"}));

    // Closed into a cycle, the chain is its own ancestry: a start walks it
    // up to the conn it began with and waits there; a search meets the cycle.
    test_inst u(text.replace(text.find("var x end"), 9, "parent c0"));
    u.deliver("c5000", TOVRIN_MSG_START);
    ASSERT_TRUE(u.dispatch());
    EXPECT_EQ(u.conn("c0")->current_state, TOVRIN_STATE_WAITING_TO_START);
    log_capture cycle;
    EXPECT_EQ(tovrin_var_expand(u.conn("c0"), "nothing"), std::nullopt);
    EXPECT_EQ(cycle.messages(),
              (strings{"variable search for nothing found a cycle through conn c0"}));
}
