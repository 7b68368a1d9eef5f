#include "groups/failover.h"

#include "support/test_inst.h"

// Calls no message or timer of a well-formed configuration makes: groups
// without members or with a member gone, the wrong kind of conn, timers
// armed twice, a failforward with no active member.
TEST(Failover, OddCallsAreRefusedOrSaySo) {
    test_inst t(
        "orderedgroup g\n\tfailovertimeout 0\n\tlog failover\norderedgroup h\n\tmember m1\n"
        "\tmember ghost\nconn m1\nconn ghost\nanygroup any\norderedgroup f\n\tmember a\n"
        "\tmember b\n\tlog none\nconn a\nconn b\n");
    tovrin_conn *g = t.conn("g"), *h = t.conn("h"), *any = t.conn("any"), *f = t.conn("f");
    t.deliver("g", TOVRIN_MSG_START);
    ASSERT_TRUE(t.dispatch());
    h->active_conn_name = "m1";
    t.inst.conns.unlink(t.conn("ghost"));
    log_capture log;
    tovrin_group_ordered_failover(g);
    ASSERT_TRUE(t.dispatch());
    tovrin_group_ordered_failover(h);
    tovrin_group_ordered_failover(any);
    tovrin_group_failforward(any);
    tovrin_group_cancel_failover(any);
    tovrin_group_cancel_failforward(any);
    tovrin_group_arm_failover(f, 30);
    tovrin_group_arm_failover(f, 5);
    tovrin_group_arm_failforward(f, 30);
    tovrin_group_arm_failforward(f, 5);
    EXPECT_EQ(
        log.messages(),
        (strings{"1469 g(2) failover_event not initialized yet, skip deleting it",
                 "1495 g(2) failforward_event not initialized yet, skip deleting it",
                 "group g can't failover with no members",
                 "1469 g(2) failover_event not initialized yet, skip deleting it",
                 "1469 h(2) failover_event not initialized yet, skip deleting it",
                 "1495 h(2) failforward_event not initialized yet, skip deleting it",
                 "couldn't find conn: ghost", "tovrin_ordered_failover: unknown member name ghost",
                 "tovrin_group_ordered_failover called with incorrect group any",
                 "tovrin_group_failforward: Non-ordered group failover groups not yet "
                 "implemented",
                 "tovrin_group_cancel_failover: incorrectly called with any",
                 "tovrin_group_cancel_failforward: incorrectly called with any",
                 "1510 f(2) failover_event not initialized yet, set and add it",
                 "1513 f(2) failover_event already scheduled",
                 "1537 f(2) failforward_event not initialized yet, set and add it",
                 "1540 f (2)failforward_event already scheduled"}));
    EXPECT_EQ(g->current_state, 0);
    EXPECT_EQ(h->currently_failing_over, 0);

    // Without an active member a failforward makes the first one active.
    t.deliver("f", TOVRIN_MSG_START);
    ASSERT_TRUE(t.dispatch());
    f->active_conn_name.clear();
    f->failforward_ready = 1;
    tovrin_group_member_tested(f);
    EXPECT_EQ(f->active_conn_name, "a");
    EXPECT_EQ(f->currently_failing_over, 1);
}
