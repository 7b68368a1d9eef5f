#include "groups/check.h"

#include "support/test_inst.h"

// What the ordered group answers, in each group state (in state order), its
// active member and another member, without then with mutex, for the
// requests start / enter up / stop up commands. 'y' allows, '-' refuses.
const char *const decisions[] = {
    "--y --y --y --y", "--y --y --y --y", "yy- y-y yy- --y",  // down, waiting to start, starting
    "yy- y-y yy- --y", "yy- y-y yy- --y", "yy- y-y yy- --y",  // starting up commands ... tested
    "yy- y-y yy- --y", "--- y-y --- --y", "--- y-y --- --y",  // up ... stopping up commands
    "--y --y --y --y", "yy- y-y yy- --y", "--y --y --y --y",  // stopping ... stopping members
};

const int requests[] = {TOVRIN_GROUP_START, TOVRIN_GROUP_ENTER_UP, TOVRIN_GROUP_STOP_UP_COMMANDS};

static int check(test_inst &t, const std::string &member, int request) {
    return tovrin_conn_check_group(t.conn(member), request);
}

// Then the active member is the one named, not the first; an anygroup
// allows all; debuggeneral writes one line per check.
TEST(GroupCheck, OrderedGroupFollowsTheDecisionTableInEveryState) {
    test_inst t(
        "orderedgroup g\n\tmember a\n\tmember b\nconn a\nconn b\nanygroup any\n\tmember d\n"
        "conn d\n");
    tovrin_conn *group = t.conn("g");
    for (int mutex = 0; mutex <= 1; mutex++) {
        group->group_part->mutex = mutex;
        for (int state = 0; state < 12; state++) {
            group->current_state = state;
            for (int i = 0; i < 3; i++) {
                SCOPED_TRACE("mutex " + std::to_string(mutex) + ", group " +
                             tovrin_state_name(state) + ", request " + std::to_string(requests[i]));
                EXPECT_EQ(check(t, "a", requests[i]),
                          decisions[state][8 * mutex + i] == 'y' ? 1 : 0);
                EXPECT_EQ(check(t, "b", requests[i]),
                          decisions[state][8 * mutex + 4 + i] == 'y' ? 1 : 0);
            }
        }
        // The first member became active at the first check and stayed so.
        EXPECT_EQ(group->group_part->active_conn_name, "a");
    }
    group->group_part->active_conn_name = "b";
    group->current_state = TOVRIN_STATE_UP;
    t.inst.globals->instance_log_mask |= TOVRIN_INST_LOG_DEBUGGENERAL;
    log_capture log;
    EXPECT_EQ(check(t, "a", TOVRIN_GROUP_START), 0);
    EXPECT_EQ(check(t, "b", TOVRIN_GROUP_STOP_UP_COMMANDS), 0);
    EXPECT_EQ(check(t, "d", TOVRIN_GROUP_ENTER_UP), 1);
    EXPECT_EQ(log.records,
              (std::vector<log_record>{
                  {TOVRIN_LOG_INFO, "tovrin_conn_check_orderedgroup_mutex(g, a, 5) = 0"},
                  {TOVRIN_LOG_INFO, "tovrin_conn_check_orderedgroup_mutex(g, b, 1) = 0"},
                  {TOVRIN_LOG_INFO, "tovrin_conn_check_anygroup(any, d, 2) = 1"}}));
}
