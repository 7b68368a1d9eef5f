#include "groups/check.h"

#include <gtest/gtest.h>

#include <string>

#include "supervise/conn.h"
#include "supervise/state.h"
#include "support/log_capture.h"
#include "support/test_inst.h"

namespace {

class GroupCheck : public ::testing::Test {
  protected:
    void load(const std::string &text) {
        t.write_config(text);
        ASSERT_EQ(t.load(), 0);
    }

    int check(const std::string &member, int request) {
        return tovrin_conn_check_group(t.conn(member), request);
    }

    test_inst t;
};

// One row per group state: what the ordered group answers its active member
// and another member, for the requests start / enter up / stop up commands,
// without and with mutex. 'y' allows, '-' refuses.
struct decision_row {
    int group_state;
    const char *active_plain;
    const char *other_plain;
    const char *active_mutex;
    const char *other_mutex;
};

const decision_row decisions[] = {
    {TOVRIN_STATE_DOWN, "--y", "--y", "--y", "--y"},
    {TOVRIN_STATE_WAITING_TO_START, "--y", "--y", "--y", "--y"},
    {TOVRIN_STATE_STARTING, "yy-", "y-y", "yy-", "--y"},
    {TOVRIN_STATE_STARTING_UP_COMMANDS, "yy-", "y-y", "yy-", "--y"},
    {TOVRIN_STATE_TESTING, "yy-", "y-y", "yy-", "--y"},
    {TOVRIN_STATE_TESTED, "yy-", "y-y", "yy-", "--y"},
    {TOVRIN_STATE_UP, "yy-", "y-y", "yy-", "--y"},
    {TOVRIN_STATE_WAITING_TO_STOP, "---", "y-y", "---", "--y"},
    {TOVRIN_STATE_STOPPING_UP_COMMANDS, "---", "y-y", "---", "--y"},
    {TOVRIN_STATE_STOPPING, "--y", "--y", "--y", "--y"},
    {TOVRIN_STATE_STARTING_MEMBERS, "yy-", "y-y", "yy-", "--y"},
    {TOVRIN_STATE_STOPPING_MEMBERS, "--y", "--y", "--y", "--y"},
};

const int requests[] = {TOVRIN_GROUP_START, TOVRIN_GROUP_ENTER_UP, TOVRIN_GROUP_STOP_UP_COMMANDS};

TEST_F(GroupCheck, OrderedGroupFollowsTheDecisionTableInEveryState) {
    load("orderedgroup g\n\tmember a\n\tmember b\nconn a\nconn b\n");
    tovrin_conn *group = t.conn("g");
    for (int mutex = 0; mutex <= 1; mutex++) {
        group->mutex = mutex;
        for (const decision_row &row : decisions) {
            group->current_state = row.group_state;
            const char *active = mutex ? row.active_mutex : row.active_plain;
            const char *other = mutex ? row.other_mutex : row.other_plain;
            for (int i = 0; i < 3; i++) {
                SCOPED_TRACE("mutex " + std::to_string(mutex) + ", group " +
                             tovrin_state_name(row.group_state) + ", request " +
                             std::to_string(requests[i]));
                EXPECT_EQ(check("a", requests[i]), active[i] == 'y' ? 1 : 0);
                EXPECT_EQ(check("b", requests[i]), other[i] == 'y' ? 1 : 0);
            }
        }
        // The first member became active at the first check and stayed so.
        EXPECT_EQ(group->active_conn_name, "a");
    }
}

TEST_F(GroupCheck, ActiveMemberIsTheOneNamedNotTheFirst) {
    load("orderedgroup g\n\tmember a\n\tmember b\n\tmutex\nconn a\nconn b\n");
    tovrin_conn *group = t.conn("g");
    group->active_conn_name = "b";
    group->current_state = TOVRIN_STATE_UP;
    EXPECT_EQ(check("a", TOVRIN_GROUP_START), 0);
    EXPECT_EQ(check("b", TOVRIN_GROUP_START), 1);
    EXPECT_EQ(check("b", TOVRIN_GROUP_STOP_UP_COMMANDS), 0);
}

TEST_F(GroupCheck, StatesOutsideTheTableAreRefused) {
    load("orderedgroup g\n\tmember a\nconn a\n");
    t.conn("g")->current_state = 12;
    for (int request : requests)
        EXPECT_EQ(check("a", request), 0) << request;
}

TEST_F(GroupCheck, AnygroupMembersAreAlwaysAllowed) {
    load("anygroup g\n\tmember a\nconn a\n");
    for (int state = 0; state < TOVRIN_N_STATES; state++) {
        t.conn("g")->current_state = state;
        for (int request : requests)
            EXPECT_EQ(check("a", request), 1) << state << " " << request;
    }
}

TEST_F(GroupCheck, ConnsWithoutAUsableGroupAreAllowedAndTheOddOnesSaySo) {
    load("conn lone\nconn a\nconn p\nconn x\norderedgroup empty\n");
    EXPECT_EQ(check("lone", TOVRIN_GROUP_ENTER_UP), 1);

    log_capture log;
    t.conn("a")->group_name = "missing";
    EXPECT_EQ(check("a", TOVRIN_GROUP_ENTER_UP), 1);
    EXPECT_TRUE(log.contains(TOVRIN_LOG_FATAL, "group name missing not found"));

    t.conn("p")->group_name = "lone";
    EXPECT_EQ(check("p", TOVRIN_GROUP_ENTER_UP), 1);
    EXPECT_TRUE(log.contains(TOVRIN_LOG_ERROR,
                             "tovrin_conn_check_group called with a conn p with an invalid "
                             "group of lone"));

    // An ordered group without members has nobody to prefer.
    t.conn("x")->group_name = "empty";
    t.conn("empty")->current_state = TOVRIN_STATE_DOWN;
    EXPECT_EQ(check("x", TOVRIN_GROUP_START), 1);
    EXPECT_TRUE(t.conn("empty")->active_conn_name.empty());

    // A group type nobody knows refuses without a word.
    t.conn("empty")->type = 3;
    log.clear();
    EXPECT_EQ(check("x", TOVRIN_GROUP_START), 0);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(GroupCheck, DebugGeneralWritesOneLinePerCheck) {
    load(
        "global\n\tinstancelog +debuggeneral\n"
        "orderedgroup g\n\tmember a\n\tmember b\nconn a\nconn b\n"
        "orderedgroup m\n\tmember c\n\tmutex\nconn c\n"
        "anygroup any\n\tmember d\nconn d\n");
    t.conn("g")->current_state = TOVRIN_STATE_UP;
    log_capture log;
    check("a", TOVRIN_GROUP_ENTER_UP);
    check("b", TOVRIN_GROUP_ENTER_UP);
    check("c", TOVRIN_GROUP_START);
    check("d", TOVRIN_GROUP_STOP_UP_COMMANDS);
    EXPECT_EQ(log.records(),
              (std::vector<log_record>{
                  {TOVRIN_LOG_INFO, "tovrin_conn_check_orderedgroup(g, a, 2) = 1"},
                  {TOVRIN_LOG_INFO, "tovrin_conn_check_orderedgroup(g, b, 2) = 0"},
                  {TOVRIN_LOG_INFO, "tovrin_conn_check_orderedgroup_mutex(m, c, 5) = 0"},
                  {TOVRIN_LOG_INFO, "tovrin_conn_check_anygroup(any, d, 1) = 1"},
              }));
}

TEST_F(GroupCheck, WithoutDebugGeneralChecksAreSilent) {
    load("orderedgroup g\n\tmember a\nconn a\n");
    log_capture log;
    check("a", TOVRIN_GROUP_START);
    EXPECT_TRUE(log.records().empty());
}

}  // namespace
