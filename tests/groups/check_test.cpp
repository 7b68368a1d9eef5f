#include "groups/check.h"

#include "support/test_inst.h"

namespace {

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

int check(test_inst &t, const std::string &member, int request) {
    return tovrin_conn_check_group(t.conn(member), request);
}

TEST(GroupCheck, OrderedGroupFollowsTheDecisionTableInEveryState) {
    test_inst t;
    t.write_config("orderedgroup g\n\tmember a\n\tmember b\nconn a\nconn b\n");
    ASSERT_EQ(t.load(), 0);
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
                EXPECT_EQ(check(t, "a", requests[i]), active[i] == 'y' ? 1 : 0);
                EXPECT_EQ(check(t, "b", requests[i]), other[i] == 'y' ? 1 : 0);
            }
        }
        // The first member became active at the first check and stayed so.
        EXPECT_EQ(group->active_conn_name, "a");
    }
}

// The active member is the one named, not the first; an anygroup allows
// all; a missing or plain group allows, saying so; an unknown kind or state
// refuses; debuggeneral writes one line per check.
TEST(GroupCheck, EdgesAndTheDebugLine) {
    test_inst t;
    t.write_config(
        "global\n\tinstancelog +debuggeneral\norderedgroup g\n\tmember a\n\tmember b\n"
        "\tmutex\nconn a\nconn b\nanygroup any\n\tmember d\nconn d\nconn lone\nconn x\n"
        "conn y\norderedgroup empty\n");
    ASSERT_EQ(t.load(), 0);
    tovrin_conn *g = t.conn("g");
    g->active_conn_name = "b";
    g->current_state = TOVRIN_STATE_UP;
    t.conn("any")->current_state = TOVRIN_STATE_DOWN;
    t.conn("x")->group_name = "missing";
    t.conn("y")->group_name = "lone";
    log_capture log;
    EXPECT_EQ(check(t, "a", TOVRIN_GROUP_START), 0);
    EXPECT_EQ(check(t, "b", TOVRIN_GROUP_STOP_UP_COMMANDS), 0);
    EXPECT_EQ(check(t, "d", TOVRIN_GROUP_ENTER_UP), 1);
    EXPECT_EQ(check(t, "lone", TOVRIN_GROUP_START), 1);
    EXPECT_EQ(check(t, "x", TOVRIN_GROUP_START), 1);
    EXPECT_EQ(check(t, "y", TOVRIN_GROUP_START), 1);
    t.conn("x")->group_name = "empty";
    EXPECT_EQ(check(t, "x", TOVRIN_GROUP_START), 1);
    EXPECT_TRUE(t.conn("empty")->active_conn_name.empty());
    g->current_state = 12;
    EXPECT_EQ(check(t, "b", TOVRIN_GROUP_START), 0);
    t.conn("empty")->type = 3;
    EXPECT_EQ(check(t, "x", TOVRIN_GROUP_START), 0);
    EXPECT_EQ(log.records(),
              (std::vector<log_record>{
                  {TOVRIN_LOG_INFO, "tovrin_conn_check_orderedgroup_mutex(g, a, 5) = 0"},
                  {TOVRIN_LOG_INFO, "tovrin_conn_check_orderedgroup_mutex(g, b, 1) = 0"},
                  {TOVRIN_LOG_INFO, "tovrin_conn_check_anygroup(any, d, 2) = 1"},
                  {TOVRIN_LOG_FATAL, "couldn't find conn: missing"},
                  {TOVRIN_LOG_FATAL, "group name missing not found"},
                  {TOVRIN_LOG_ERROR,
                   "tovrin_conn_check_group called with a conn y with an invalid group of lone"},
              }));
}

}  // namespace
