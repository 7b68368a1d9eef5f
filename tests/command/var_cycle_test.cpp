#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command/tokenizer.h"
#include "command/var.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "support/log_capture.h"

namespace {

using maybe = std::optional<std::string>;

// An instance with a real event base whose conns are all in force.
struct world {
    world() {
        inst.base.reset(event_base_new());
        inst.globals = tovrin_globals_new();
        inst.new_globals = tovrin_globals_new();
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

    tovrin_inst inst;
};

std::string cycle_message(const std::string &conn) {
    return "variable search for x found a cycle through conn " + conn;
}

struct cycle_case {
    const char *title;
    std::function<void(world &)> build;
    const char *start;
    const char *reference;
    maybe expected;
    const char *cycle_through;  // null: no cycle is met
};

TEST(VarCycles, EverySearchEndsAndReportsTheCycleOnce) {
    auto self = [](world &w) { w.add("a", TOVRIN_CONN, {"a"}); };
    auto self_and_holder = [](world &w) {
        w.add("a", TOVRIN_CONN, {"a", "b"});
        tovrin_conn_add_var(w.add("b"), "x", "b");
    };
    auto ring = [](world &w) {
        w.add("a", TOVRIN_CONN, {"b"});
        w.add("b", TOVRIN_CONN, {"c"});
        w.add("c", TOVRIN_CONN, {"a", "d"});
        tovrin_conn_add_var(w.add("d"), "x", "d");
    };
    auto own_in_ring = [](world &w) {
        tovrin_conn_add_var(w.add("a", TOVRIN_CONN, {"b"}), "x", "a");
        w.add("b", TOVRIN_CONN, {"a"});
    };
    auto group_is_parent_of_member = [](world &w) {
        w.add("g", TOVRIN_ORDEREDGROUP)->active_conn_name = "m";
        w.add("m", TOVRIN_CONN, {"g"});
    };
    auto groups_loop = [](world &w) {
        w.add("g1", TOVRIN_ANYGROUP)->active_conn_name = "g2";
        w.add("g2", TOVRIN_ANYGROUP)->active_conn_name = "g1";
    };
    auto two_cycles = [](world &w) {
        w.add("a", TOVRIN_CONN, {"a", "b"});
        w.add("b", TOVRIN_CONN, {"a", "b"});
    };
    const cycle_case cases[] = {
        {"self first", self, "a", "x", std::nullopt, "a"},
        {"self all", self, "a", "all:x", std::nullopt, "a"},
        {"self parents_all", self, "a", "parents_all:x", std::nullopt, "a"},
        {"self local", self, "a", "local:x", std::nullopt, nullptr},
        {"self then holder", self_and_holder, "a", "x", "b", "a"},
        {"self then holder all", self_and_holder, "a", "all:x", "b", "a"},
        {"ring first", ring, "a", "x", "d", "a"},
        {"ring all", ring, "a", "all:x", "d", "a"},
        {"ring from inside", ring, "b", "x", "d", "b"},
        // The conn parents_all starts from is never searched, also when its
        // ancestry leads back to it.
        {"own value in ring", own_in_ring, "a", "parents_all:x", std::nullopt, "a"},
        {"group first", group_is_parent_of_member, "g", "x", std::nullopt, "g"},
        {"group all", group_is_parent_of_member, "g", "all:x", std::nullopt, "g"},
        {"group local", group_is_parent_of_member, "g", "local:x", std::nullopt, nullptr},
        {"member first", group_is_parent_of_member, "m", "x", std::nullopt, "m"},
        {"active members loop local", groups_loop, "g1", "local:x", std::nullopt, "g1"},
        {"active members loop first", groups_loop, "g1", "x", std::nullopt, "g1"},
        {"two cycles", two_cycles, "a", "all:x", std::nullopt, "a"},
        {"two cycles first", two_cycles, "b", "x", std::nullopt, "a"},
    };
    for (const cycle_case &c : cases) {
        SCOPED_TRACE(c.title);
        world w;
        c.build(w);
        log_capture log;
        EXPECT_EQ(tovrin_var_expand(w.find(c.start), c.reference), c.expected);
        std::vector<log_record> expected;
        if (c.cycle_through != nullptr)
            expected.push_back({TOVRIN_LOG_FATAL, cycle_message(c.cycle_through)});
        EXPECT_EQ(log.records(), expected);
    }
}

TEST(VarCycles, EachExpansionReportsItsOwnCycle) {
    world w;
    w.add("a", TOVRIN_CONN, {"a"});
    log_capture log;
    std::unique_ptr<parsed_argv> args = str2argv(w.find("a"), "run %x% %all:x%");
    ASSERT_NE(args, nullptr);
    EXPECT_EQ(args->argv, (std::vector<std::string>{"run", ""}));
    EXPECT_EQ(log.count(TOVRIN_LOG_FATAL, cycle_message("a")), 2);
    EXPECT_EQ(log.records().size(), 2u);
}

// Long ancestries are walked without recursion.
class LongChain : public ::testing::Test {
  protected:
    static constexpr int length = 10000;

    void SetUp() override {
        for (int i = 0; i < length; i++) {
            std::vector<std::string> parents;
            if (i + 1 < length)
                parents.push_back(name(i + 1));
            w.add(name(i), TOVRIN_CONN, parents);
        }
    }

    static std::string name(int i) { return "c" + std::to_string(i); }

    world w;
};

TEST_F(LongChain, ValueAtTheFarEndIsFoundByEveryStrategy) {
    ASSERT_EQ(tovrin_conn_add_var(w.find(name(length - 1)), "x", "end"), 0);
    log_capture log;
    EXPECT_EQ(tovrin_var_expand(w.find(name(0)), "x"), maybe("end"));
    EXPECT_EQ(tovrin_var_expand(w.find(name(0)), "all:x"), maybe("end"));
    EXPECT_EQ(tovrin_var_expand(w.find(name(0)), "parents_all:x"), maybe("end"));
    EXPECT_EQ(tovrin_var_expand(w.find(name(0)), "local:x"), std::nullopt);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(LongChain, ClosedIntoARingItEndsWithOneReport) {
    tovrin_conn_add_parent(w.find(name(length - 1)), name(0));
    log_capture log;
    EXPECT_EQ(tovrin_var_expand(w.find(name(0)), "all:x"), std::nullopt);
    EXPECT_EQ(log.records(), (std::vector<log_record>{{TOVRIN_LOG_FATAL, cycle_message("c0")}}));
}

// Forty diamonds in a row hold 2^40 paths to the top: the search stops at
// its bound, says so once, and keeps what it collected.
TEST(VarDiamonds, ALadderOfDiamondsIsCutShortOnce) {
    world w;
    const int rungs = 40;
    for (int i = 0; i < rungs; i++) {
        std::string next = "j" + std::to_string(i + 1);
        w.add("j" + std::to_string(i), TOVRIN_CONN,
              {"l" + std::to_string(i), "r" + std::to_string(i)});
        w.add("l" + std::to_string(i), TOVRIN_CONN, {next});
        w.add("r" + std::to_string(i), TOVRIN_CONN, {next});
    }
    ASSERT_EQ(tovrin_conn_add_var(w.add("j" + std::to_string(rungs)), "x", "t"), 0);
    log_capture log;
    std::optional<std::string> all = tovrin_var_expand(w.find("j0"), "all:x");
    ASSERT_TRUE(all.has_value());
    EXPECT_EQ(all->substr(0, 4), "t t ");
    EXPECT_EQ(tovrin_var_expand(w.find("j0"), "nothing"), std::nullopt);
    const log_record cut{TOVRIN_LOG_FATAL,
                         "variable search for x stopped after visiting 100000 conns"};
    const log_record cut_nothing{TOVRIN_LOG_FATAL,
                                 "variable search for nothing stopped after visiting 100000 conns"};
    EXPECT_EQ(log.records(), (std::vector<log_record>{cut, cut_nothing}));
}

TEST(VarChains, LongChainOfActiveMembersIsFollowed) {
    world w;
    const int length = 10000;
    for (int i = 0; i < length; i++)
        w.add("g" + std::to_string(i), TOVRIN_ANYGROUP)->active_conn_name =
            "g" + std::to_string(i + 1);
    ASSERT_EQ(tovrin_conn_add_var(w.add("g" + std::to_string(length)), "x", "deep"), 0);
    log_capture log;
    EXPECT_EQ(tovrin_var_expand(w.find("g0"), "local:x"), maybe("deep"));
    EXPECT_EQ(tovrin_var_expand(w.find("g0"), "x"), maybe("deep"));
    EXPECT_TRUE(log.records().empty());
}

}  // namespace
