#include "supervise/conn.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <string>
#include <vector>

#include "supervise/inst.h"
#include "supervise/state.h"
#include "support/log_capture.h"

namespace {

// An instance with a real event base and a configuration being parsed, as
// the parser sees it.
class ConnRecords : public ::testing::Test {
  protected:
    void SetUp() override {
        inst.base.reset(event_base_new());
        inst.globals = tovrin_globals_new();
        inst.new_globals = tovrin_globals_new();
    }

    // Moves every pending conn into force, as the start-up hand-over does.
    void put_in_force() {
        while (!inst.new_conns.empty())
            inst.conns.push_back(inst.new_conns.pop_front());
    }

    tovrin_conn *add_conn(const std::string &name) {
        return inst.new_conns.push_back(
            tovrin_conn_new(&inst, name, TOVRIN_CONN, 60, 30, 30, 30, 1, -1, 0));
    }

    std::vector<std::string> names(const tovrin_link_list &links) {
        std::vector<std::string> out;
        for (const tovrin_link &link : links)
            out.push_back(link.name);
        return out;
    }

    tovrin_inst inst;
};

TEST_F(ConnRecords, NewConnTakesItsSettingsAndThePendingDefaultMask) {
    inst.globals->default_log_mask = 0x2;
    inst.new_globals->default_log_mask = 0x80;
    auto conn = tovrin_conn_new(&inst, "wan", TOVRIN_CONN, 11, 12, 13, 14, 15, 16, 17);
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(conn->inst, &inst);
    EXPECT_EQ(conn->name, "wan");
    EXPECT_EQ(conn->type, TOVRIN_CONN);
    EXPECT_EQ(conn->commandtimeout, 11);
    EXPECT_EQ(conn->testperiod, 12);
    EXPECT_EQ(conn->testdelay, 13);
    EXPECT_EQ(conn->testtimeout, 14);
    EXPECT_EQ(conn->testthreshold, 15);
    EXPECT_EQ(conn->maxrestarts, 16);
    EXPECT_EQ(conn->restartdelayfactor, 17);
    EXPECT_EQ(conn->log_mask, 0x80u);
    EXPECT_EQ(conn->current_state, TOVRIN_STATE_DOWN);
    EXPECT_EQ(conn->previous_state, TOVRIN_STATE_DOWN);
    EXPECT_EQ(conn->failforwardperiod, 0);
    EXPECT_EQ(conn->failovertimeout, 0);
    EXPECT_EQ(conn->is_deaf, 0);
    EXPECT_TRUE(conn->group_name.empty());
    EXPECT_TRUE(conn->active_conn_name.empty());
    EXPECT_TRUE(conn->parents.empty());
    EXPECT_FALSE(conn->test_event.initialized());
    for (const tovrin_var_list &vars : conn->vars)
        EXPECT_TRUE(vars.empty());
    // It is in no list until the caller puts it in one.
    EXPECT_TRUE(inst.new_conns.empty());
}

TEST_F(ConnRecords, GroupsAndDeafConnsAreAppendedWithTheirDefaults) {
    tovrin_conn *group = tovrin_group_add(&inst, "uplinks", TOVRIN_ORDEREDGROUP);
    tovrin_conn *deaf = tovrin_conn_add_deaf(&inst, "ghost");
    tovrin_conn *any = tovrin_group_add(&inst, "any", TOVRIN_ANYGROUP);
    ASSERT_NE(group, nullptr);
    ASSERT_NE(deaf, nullptr);
    ASSERT_NE(any, nullptr);

    EXPECT_EQ(group->type, TOVRIN_ORDEREDGROUP);
    EXPECT_EQ(group->failforwardperiod, 600);
    EXPECT_EQ(group->failovertimeout, 300);
    EXPECT_EQ(group->commandtimeout, 60);
    EXPECT_EQ(group->testthreshold, 1);
    EXPECT_EQ(any->type, TOVRIN_ANYGROUP);
    EXPECT_EQ(any->failovertimeout, 300);

    EXPECT_EQ(deaf->type, TOVRIN_CONN);
    EXPECT_EQ(deaf->is_deaf, 1);
    EXPECT_EQ(deaf->failovertimeout, 0);
    EXPECT_EQ(deaf->maxrestarts, -1);
    EXPECT_EQ(deaf->log_mask, TOVRIN_CONN_LOG_DEFAULT);

    std::vector<tovrin_conn *> order;
    for (tovrin_conn &conn : inst.new_conns)
        order.push_back(&conn);
    EXPECT_EQ(order, (std::vector<tovrin_conn *>{group, deaf, any}));
}

TEST_F(ConnRecords, LinksKeepFirstOrderWithoutDuplicates) {
    tovrin_conn *group = tovrin_group_add(&inst, "g", TOVRIN_ORDEREDGROUP);
    for (const char *name : {"b", "a", "b", "", "c", "a"})
        tovrin_group_add_member(group, name);
    EXPECT_EQ(names(group->members), (std::vector<std::string>{"b", "a", "c"}));

    tovrin_conn *conn = add_conn("x");
    tovrin_conn_add_parent(conn, "p1");
    tovrin_conn_add_parent(conn, "p1");
    tovrin_conn_add_child(conn, "c1");
    tovrin_conn_add_child(conn, "C1");
    EXPECT_EQ(names(conn->parents), (std::vector<std::string>{"p1"}));
    EXPECT_EQ(names(conn->children), (std::vector<std::string>{"c1", "C1"}));
}

TEST_F(ConnRecords, LongLinkListsStayDuplicateFreeAcrossTheIndexThreshold) {
    tovrin_conn *parent = add_conn("uplink");
    std::vector<std::string> expected;
    for (int round = 0; round < 3; round++) {
        for (int i = 0; i < 200; i++) {
            std::string name = "child" + std::to_string(i);
            tovrin_conn_add_child(parent, name);
            if (round == 0)
                expected.push_back(name);
        }
    }
    EXPECT_EQ(names(parent->children), expected);
    EXPECT_TRUE(parent->children.contains("child0"));
    EXPECT_TRUE(parent->children.contains("child199"));
    EXPECT_FALSE(parent->children.contains("child200"));
}

TEST_F(ConnRecords, SecondGroupIsRefusedAndTheFirstKept) {
    log_capture log;
    tovrin_conn *m = add_conn("m");
    tovrin_conn_set_group(m, "g1");
    tovrin_conn_set_group(m, "g2");
    EXPECT_EQ(m->group_name, "g1");
    const std::vector<log_record> expected = {
        {TOVRIN_LOG_FATAL, "Conn m has multiple groups specified"}};
    EXPECT_EQ(log.records(), expected);
}

TEST_F(ConnRecords, FindSeesOnlyConnsInForce) {
    log_capture log;
    add_conn("a");
    put_in_force();
    add_conn("pending");

    EXPECT_EQ(tovrin_conn_find(&inst, "a"), inst.conns.front());
    EXPECT_EQ(tovrin_conn_find(&inst, "pending"), nullptr);
    EXPECT_EQ(tovrin_conn_find(&inst, "A"), nullptr);
    EXPECT_EQ(tovrin_conn_find(&inst, ""), nullptr);
    EXPECT_EQ(tovrin_conn_find(nullptr, "a"), nullptr);
    const std::vector<log_record> expected = {
        {TOVRIN_LOG_FATAL, "couldn't find conn: pending"},
        {TOVRIN_LOG_FATAL, "couldn't find conn: A"},
    };
    EXPECT_EQ(log.records(), expected);
}

TEST_F(ConnRecords, StatePredicatesSplitTheTwelveStates) {
    auto conn = tovrin_conn_new(&inst, "s", TOVRIN_CONN, 60, 30, 30, 30, 1, -1, 0);
    const std::vector<int> active = {1, 2, 3, 4, 5, 6, 10};
    for (int state = 0; state < TOVRIN_N_STATES; state++) {
        conn->current_state = state;
        bool expect_active = std::find(active.begin(), active.end(), state) != active.end();
        EXPECT_EQ(tovrin_conn_is_active(conn.get()), expect_active) << state;
        EXPECT_EQ(tovrin_conn_is_stopping(conn.get()), !expect_active) << state;
    }
    EXPECT_FALSE(tovrin_conn_is_active(nullptr));
    EXPECT_FALSE(tovrin_conn_is_stopping(nullptr));
}

TEST_F(ConnRecords, GroupNeedsStartUntilItIsFarEnoughInStarting) {
    tovrin_conn *group = tovrin_group_add(&inst, "g", TOVRIN_ANYGROUP);
    tovrin_conn *member = add_conn("m");
    tovrin_conn *loner = add_conn("loner");
    tovrin_conn *orphan = add_conn("orphan");
    tovrin_conn_set_group(member, "g");
    tovrin_conn_set_group(orphan, "nosuch");
    put_in_force();

    const std::vector<int> far_enough = {3, 4, 5, 6, 10};
    for (int state = 0; state < TOVRIN_N_STATES; state++) {
        group->current_state = state;
        bool far = std::find(far_enough.begin(), far_enough.end(), state) != far_enough.end();
        EXPECT_EQ(tovrin_conn_group_needs_start(member), !far) << state;
    }
    EXPECT_FALSE(tovrin_conn_group_needs_start(loner));
    EXPECT_FALSE(tovrin_conn_group_needs_start(nullptr));

    log_capture log;
    EXPECT_FALSE(tovrin_conn_group_needs_start(orphan));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_FATAL, "group name \"nosuch\" not found"));
}

TEST_F(ConnRecords, CountingQueriesSkipNamesNotFound) {
    tovrin_conn *x = add_conn("x");
    tovrin_conn *p_up = add_conn("p_up");
    tovrin_conn *p_down = add_conn("p_down");
    tovrin_conn *c_waiting = add_conn("c_waiting");
    tovrin_conn *c_starting = add_conn("c_starting");
    tovrin_conn *c_stopping = add_conn("c_stopping");
    tovrin_conn *g = tovrin_group_add(&inst, "g", TOVRIN_ANYGROUP);
    for (const char *p : {"p_up", "p_down", "missing"})
        tovrin_conn_add_parent(x, p);
    for (const char *c : {"c_waiting", "c_starting", "c_stopping", "missing"})
        tovrin_conn_add_child(x, c);
    for (const char *m : {"p_up", "p_down", "missing"})
        tovrin_group_add_member(g, m);
    put_in_force();

    p_up->current_state = TOVRIN_STATE_UP;
    p_down->current_state = TOVRIN_STATE_DOWN;
    c_waiting->current_state = TOVRIN_STATE_WAITING_TO_START;
    c_starting->current_state = TOVRIN_STATE_STARTING;
    c_stopping->current_state = TOVRIN_STATE_STOPPING;

    log_capture log;
    EXPECT_EQ(tovrin_conn_count_parents_not_up(x), 1);
    EXPECT_EQ(tovrin_conn_count_children_started(x), 2);
    EXPECT_EQ(tovrin_conn_count_members_not_down(g), 1);
    EXPECT_EQ(log.count(TOVRIN_LOG_FATAL, "couldn't find conn: missing"), 3);

    EXPECT_EQ(tovrin_conn_count_parents_not_up(p_up), 0);
    EXPECT_EQ(tovrin_conn_count_children_started(p_up), 0);
    EXPECT_EQ(tovrin_conn_count_members_not_down(x), 0);
}

}  // namespace
