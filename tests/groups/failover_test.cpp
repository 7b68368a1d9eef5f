#include "groups/failover.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "supervise/conn.h"
#include "supervise/message.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"
#include "supervise/state_machine.h"
#include "support/log_capture.h"
#include "support/test_inst.h"

namespace {

using strings = std::vector<std::string>;

// Members without commands reach up by messages alone, so whole failovers
// run here against a real event base; the store requests they make are read
// from the instance's end of the store link.
class Failover : public ::testing::Test {
  protected:
    void load(const std::string &text) {
        t.write_config(text);
        ASSERT_EQ(t.load(), 0);
        t.take_store_requests();
    }

    void dispatch() { ASSERT_TRUE(t.dispatch()); }

    void deliver(const std::string &name, int type) { t.deliver(name, type); }

    // Starts the group and lets everything settle.
    void start_group() {
        deliver("g", TOVRIN_MSG_START);
        dispatch();
        ASSERT_EQ(state("g"), TOVRIN_STATE_UP);
    }

    // The group keys set since the last call, as "suffix value"; the
    // timestamp's value is replaced by "T".
    strings group_keys() {
        strings out;
        const std::string prefix = "1|tovrin.g.";
        for (const std::string &request : t.take_store_requests()) {
            if (request.rfind(prefix, 0) != 0 || request.find(".status|") != std::string::npos)
                continue;
            std::string rest = request.substr(prefix.size());
            size_t bar = rest.find("|1|");
            if (bar == std::string::npos)
                continue;
            std::string key = rest.substr(0, bar);
            out.push_back(key + " " + (key == "failover-timestamp" ? "T" : rest.substr(bar + 3)));
        }
        return out;
    }

    int state(const std::string &name) { return t.conn(name)->current_state; }
    tovrin_conn *group() { return t.conn("g"); }

    test_inst t;
};

const char *const three_members =
    "orderedgroup g\n\tmember m1\n\tmember m2\n\tmember m3\n\tmutex\n"
    "\tfailovertimeout 30\n\tfailforwardperiod 60\n"
    "conn m1\nconn m2\nconn m3\n";

TEST_F(Failover, MovesAlongTheMembersAndWrapsToTheFirst) {
    load(three_members);
    start_group();
    EXPECT_EQ(group()->active_conn_name, "m1");
    EXPECT_EQ(state("m2"), TOVRIN_STATE_DOWN);
    group_keys();

    struct step {
        const char *from;
        const char *to;
        const char *index;
        bool all_failed;
    };
    const step steps[] = {
        {"m1", "m2", "1", false}, {"m2", "m3", "2", false}, {"m3", "m1", "0", true}};
    for (const step &s : steps) {
        SCOPED_TRACE(std::string(s.from) + " -> " + s.to);
        log_capture log;
        tovrin_group_ordered_failover(group());
        EXPECT_EQ(group()->next_active_conn_name, s.to);
        EXPECT_EQ(group()->currently_failing_over, 1);
        EXPECT_EQ(group()->failforward_ready, 0);
        EXPECT_TRUE(group()->failforward_event.pending());
        dispatch();

        strings expected_log;
        if (s.all_failed)
            expected_log.push_back("group g members all failed");
        expected_log.push_back(std::string("group g failing over to ") + s.to);
        strings got_log;
        for (const log_record &r : log.records()) {
            if (r.message.rfind("group g ", 0) == 0) {
                EXPECT_EQ(r.priority, TOVRIN_LOG_INFO) << r.message;
                got_log.push_back(r.message);
            }
        }
        EXPECT_EQ(got_log, expected_log);

        EXPECT_EQ(group()->active_conn_name, s.to);
        EXPECT_TRUE(group()->next_active_conn_name.empty());
        EXPECT_EQ(group()->currently_failing_over, 0);
        EXPECT_EQ(state("g"), TOVRIN_STATE_UP);
        EXPECT_EQ(state(s.to), TOVRIN_STATE_UP);
        EXPECT_EQ(state(s.from), TOVRIN_STATE_DOWN);
        EXPECT_EQ(group_keys(), (strings{
                                    std::string("active-connection-index ") + s.index,
                                    std::string("active-connection-name ") + s.to,
                                    "connection-names m1,m2,m3",
                                    "failover-timestamp T",
                                }));
    }
}

TEST_F(Failover, AMemberLeavingUpFailsTheGroupOver) {
    load(three_members);
    start_group();
    log_capture log;
    deliver("m1", TOVRIN_MSG_RESTART);
    dispatch();
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "group g has failed"));
    EXPECT_EQ(group()->active_conn_name, "m2");
    EXPECT_EQ(state("m2"), TOVRIN_STATE_UP);
    // m1 went down and its own restart was refused: with mutex only the
    // active member may run.
    EXPECT_EQ(state("m1"), TOVRIN_STATE_DOWN);
}

TEST_F(Failover, ExternalCommandRestartsTheActiveMemberOnly) {
    load(three_members + std::string("conn plain\nanygroup any\n\tmember a1\nconn a1\n"));
    start_group();
    deliver("any", TOVRIN_MSG_START);
    deliver("plain", TOVRIN_MSG_START);
    dispatch();
    log_capture log;
    EXPECT_EQ(tovrin_conn_external_failover(t.conn("any")), 0);
    EXPECT_EQ(tovrin_conn_external_failover(t.conn("plain")), 0);
    // The anygroup and the plain conn only say they heard it.
    EXPECT_TRUE(t.inst.message_queue.empty());
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "external failover command received for any"));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "external failover command received for plain"));

    EXPECT_EQ(tovrin_conn_external_failover(group()), 0);
    dispatch();
    EXPECT_EQ(group()->active_conn_name, "m2");
    EXPECT_EQ(state("a1"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("plain"), TOVRIN_STATE_UP);
}

TEST_F(Failover, DuringAReloadTheActiveMemberIsKept) {
    load(three_members);
    start_group();
    group_keys();
    t.inst.reloading_config = true;
    log_capture log;
    tovrin_group_ordered_failover(group());
    EXPECT_TRUE(log.contains(
        TOVRIN_LOG_INFO, "group g failover during reloading, keeping current active member m1"));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "group g failing over to m1"));
    EXPECT_FALSE(log.contains(TOVRIN_LOG_INFO, "group g members all failed"));
    t.inst.reloading_config = false;
    dispatch();
    // The group went down and up again around the same member.
    EXPECT_EQ(group()->active_conn_name, "m1");
    EXPECT_EQ(state("g"), TOVRIN_STATE_UP);
    EXPECT_EQ(group_keys(), (strings{"active-connection-index 0", "active-connection-name m1",
                                     "connection-names m1,m2,m3", "failover-timestamp T"}));
}

TEST_F(Failover, NothingToFailOverToStopsTheGroupOrLeavesItAlone) {
    load(
        "orderedgroup g\n\tfailovertimeout 0\norderedgroup h\n\tmember m1\n\tmember ghost\n"
        "conn m1\nconn ghost\nanygroup any\n");
    log_capture log;
    deliver("g", TOVRIN_MSG_START);
    dispatch();
    tovrin_group_ordered_failover(group());
    dispatch();
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "group g can't failover with no members"));
    EXPECT_EQ(state("g"), TOVRIN_STATE_DOWN);

    // A member whose conn is gone is not failed over to.
    tovrin_conn *h = t.conn("h");
    h->active_conn_name = "m1";
    t.inst.conns.unlink(t.conn("ghost"));
    tovrin_group_ordered_failover(h);
    EXPECT_TRUE(
        log.contains(TOVRIN_LOG_FATAL, "tovrin_ordered_failover: unknown member name ghost"));
    EXPECT_EQ(h->currently_failing_over, 0);
    EXPECT_TRUE(h->next_active_conn_name.empty());

    tovrin_group_ordered_failover(t.conn("any"));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_FATAL,
                             "tovrin_group_ordered_failover called with incorrect group any"));
    tovrin_group_failforward(t.conn("any"));
    EXPECT_TRUE(log.contains(
        TOVRIN_LOG_FATAL,
        "tovrin_group_failforward: Non-ordered group failover groups not yet implemented"));
}

TEST_F(Failover, TimersSayWhenTheyAreNewBusyOrMisused) {
    load(three_members + std::string("anygroup any\n"));
    log_capture log;
    tovrin_group_cancel_failover(group());
    tovrin_group_cancel_failforward(group());
    tovrin_group_arm_failover(group(), 30);
    tovrin_group_arm_failover(group(), 5);
    tovrin_group_arm_failforward(group(), 30);
    tovrin_group_arm_failforward(group(), 5);
    tovrin_group_cancel_failover(t.conn("any"));
    tovrin_group_cancel_failforward(t.conn("any"));
    EXPECT_EQ(
        log.records(),
        (std::vector<log_record>{
            {TOVRIN_LOG_WARN, "1469 g(2) failover_event not initialized yet, skip deleting it"},
            {TOVRIN_LOG_WARN, "1495 g(2) failforward_event not initialized yet, skip deleting it"},
            {TOVRIN_LOG_WARN, "1510 g(2) failover_event not initialized yet, set and add it"},
            {TOVRIN_LOG_FATAL, "1513 g(2) failover_event already scheduled"},
            {TOVRIN_LOG_WARN, "1537 g(2) failforward_event not initialized yet, set and add it"},
            {TOVRIN_LOG_FATAL, "1540 g (2)failforward_event already scheduled"},
            {TOVRIN_LOG_FATAL, "tovrin_group_cancel_failover: incorrectly called with any"},
            {TOVRIN_LOG_FATAL, "tovrin_group_cancel_failforward: incorrectly called with any"},
        }));
    // The busy timer kept its first time-out.
    timeval left{};
    ASSERT_TRUE(event_pending(group()->failover_event.raw(), EV_TIMEOUT, &left));
    timeval now{};
    event_base_gettimeofday_cached(t.inst.base.get(), &now);
    EXPECT_GT(left.tv_sec - now.tv_sec, 10);

    // Cancelled and re-armed without a word once it has been set.
    log.clear();
    tovrin_group_cancel_failover(group());
    EXPECT_FALSE(group()->failover_event.pending());
    tovrin_group_arm_failover(group(), 1);
    EXPECT_TRUE(group()->failover_event.pending());
    EXPECT_TRUE(log.records().empty());
}

TEST_F(Failover, AMemberThatNeverComesUpIsFailedOverByTheTimer) {
    // ghost is never defined: its placeholder never answers.
    load(
        "orderedgroup g\n\tmember ghost\n\tmember m2\n\tmutex\n\tfailovertimeout 30\n"
        "conn m2\n");
    deliver("g", TOVRIN_MSG_START);
    dispatch();
    EXPECT_EQ(state("g"), TOVRIN_STATE_STARTING_MEMBERS);
    ASSERT_TRUE(group()->failover_event.pending());

    log_capture log;
    group()->failover_event.activate(EV_TIMEOUT);
    event_base_loop(t.inst.base.get(), EVLOOP_NONBLOCK);
    dispatch();
    EXPECT_TRUE(
        log.contains(TOVRIN_LOG_INFO, "group g member ghost failed to come up before timeout"));
    EXPECT_EQ(group()->active_conn_name, "m2");
    EXPECT_EQ(state("g"), TOVRIN_STATE_UP);
    // Up cancelled the timer armed when the group started its members again.
    EXPECT_FALSE(group()->failover_event.pending());
}

TEST_F(Failover, ZeroFailoverTimeoutArmsNoTimer) {
    load("orderedgroup g\n\tmember ghost\n\tmember m2\n\tfailovertimeout 0\nconn m2\n");
    deliver("g", TOVRIN_MSG_START);
    dispatch();
    EXPECT_EQ(state("g"), TOVRIN_STATE_STARTING_MEMBERS);
    EXPECT_FALSE(group()->failover_event.initialized());
}

TEST_F(Failover, FailoverTimeoutMovesOnOnlyFromAMemberThatIsNotUp) {
    load(three_members);
    start_group();
    log_capture log;
    tovrin_group_failover_timeout(-1, EV_TIMEOUT, group());
    EXPECT_EQ(group()->currently_failing_over, 0);

    t.conn("m1")->current_state = TOVRIN_STATE_TESTING;
    tovrin_group_failover_timeout(-1, EV_TIMEOUT, group());
    EXPECT_TRUE(
        log.contains(TOVRIN_LOG_INFO, "group g member m1 failed to come up before timeout"));
    EXPECT_EQ(group()->next_active_conn_name, "m2");
    EXPECT_EQ(group()->currently_failing_over, 1);
}

TEST_F(Failover, FailoverMessagesFollowTheGroupsLogMask) {
    load("orderedgroup g\n\tmember m1\n\tmember m2\n\tlog -failover\nconn m1\nconn m2\n");
    start_group();
    log_capture log;
    deliver("m1", TOVRIN_MSG_RESTART);
    dispatch();
    EXPECT_EQ(group()->active_conn_name, "m2");
    for (const log_record &r : log.records())
        EXPECT_NE(r.message.rfind("group g", 0), 0u) << r.message;
}

// Standbys of a group without mutex run and stay tested; failforward moves
// back to the earliest of them once the period is over.
const char *const standbys =
    "orderedgroup g\n\tmember m1\n\tmember m2\n\tmember m3\n"
    "\tfailovertimeout 30\n\tfailforwardperiod 60\n"
    "conn m1\nconn m2\nconn m3\n";

TEST_F(Failover, WithoutMutexFailforwardWaitsForThePeriodThenPrefersTheEarliestTested) {
    load(standbys);
    start_group();
    EXPECT_EQ(state("m2"), TOVRIN_STATE_TESTED);
    EXPECT_EQ(state("m3"), TOVRIN_STATE_TESTED);
    group()->active_conn_name = "m3";
    // m1 is sick: down, and deaf to the group's starts.
    tovrin_conn *m1 = t.conn("m1");
    m1->current_state = TOVRIN_STATE_DOWN;
    m1->is_deaf = 1;

    // Before the period is over a tested standby changes nothing.
    tovrin_group_member_tested(group());
    EXPECT_EQ(group()->currently_failing_over, 0);

    log_capture log;
    tovrin_group_failforward_timeout(-1, EV_TIMEOUT, group());
    EXPECT_EQ(group()->failforward_ready, 1);
    EXPECT_EQ(group()->next_active_conn_name, "m2");
    EXPECT_EQ(group()->currently_failing_over, 1);
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "group g trying to failforward to m2"));
    dispatch();
    EXPECT_EQ(group()->active_conn_name, "m2");
    EXPECT_EQ(state("g"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("m3"), TOVRIN_STATE_TESTED);
    // The period is not started again by a failforward.
    EXPECT_EQ(group()->failforward_ready, 1);
    EXPECT_FALSE(group()->failforward_event.pending());

    // m1 heals and passes its tests as a standby: its "member tested" brings
    // the group back to it.
    log.clear();
    m1->is_deaf = 0;
    m1->current_state = TOVRIN_STATE_TESTED;
    tovrin_conn_deliver_message(&t.inst, m1, group(), TOVRIN_MSG_MEMBER_TESTED);
    dispatch();
    EXPECT_EQ(group()->active_conn_name, "m1");
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "group g trying to failforward to m1"));

    // The first member active: nothing to prefer.
    log.clear();
    tovrin_group_member_tested(group());
    EXPECT_EQ(group()->currently_failing_over, 0);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(Failover, WithMutexFailforwardTriesTheFirstMember) {
    load(three_members);
    start_group();
    tovrin_group_ordered_failover(group());
    dispatch();
    ASSERT_EQ(group()->active_conn_name, "m2");
    EXPECT_EQ(state("m1"), TOVRIN_STATE_DOWN);
    EXPECT_EQ(group()->failforward_ready, 0);

    tovrin_group_failforward_timeout(-1, EV_TIMEOUT, group());
    EXPECT_EQ(group()->next_active_conn_name, "m1");
    dispatch();
    EXPECT_EQ(group()->active_conn_name, "m1");
    EXPECT_EQ(state("m1"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("m2"), TOVRIN_STATE_DOWN);
}

TEST_F(Failover, ZeroFailforwardPeriodIsReadyAtOnce) {
    load("orderedgroup g\n\tmember m1\n\tmember m2\n\tfailforwardperiod 0\nconn m1\nconn m2\n");
    start_group();
    t.conn("m1")->current_state = TOVRIN_STATE_TESTING;
    tovrin_group_ordered_failover(group());
    EXPECT_EQ(group()->failforward_ready, 1);
    EXPECT_FALSE(group()->failforward_event.initialized());
    dispatch();
    // m1 came back as a standby at once and the group went straight back.
    EXPECT_EQ(group()->active_conn_name, "m1");
}

TEST_F(Failover, FailforwardDuringReloadKeepsTheActiveMember) {
    load(standbys);
    start_group();
    group()->active_conn_name = "m2";
    group()->failforward_ready = 1;
    t.inst.reloading_config = true;
    tovrin_group_member_tested(group());
    EXPECT_EQ(group()->next_active_conn_name, "m2");
    EXPECT_EQ(group()->currently_failing_over, 1);
    // Starts wait for the reload to end, so the group settles down.
    dispatch();
    EXPECT_EQ(group()->active_conn_name, "m2");
    EXPECT_EQ(state("g"), TOVRIN_STATE_DOWN);
    EXPECT_EQ(group()->start_after_reload, 1);
}

TEST_F(Failover, FailforwardWithoutActiveMemberGoesToTheFirst) {
    load(standbys);
    start_group();
    group()->active_conn_name.clear();
    group()->failforward_ready = 1;
    tovrin_group_member_tested(group());
    EXPECT_EQ(group()->active_conn_name, "m1");
    EXPECT_TRUE(group()->next_active_conn_name.empty());
    EXPECT_EQ(group()->currently_failing_over, 1);
    group_keys();
    dispatch();
    EXPECT_EQ(group()->active_conn_name, "m1");
    EXPECT_EQ(state("g"), TOVRIN_STATE_UP);
    // Only the time of the move is published: the member did not change.
    EXPECT_EQ(group_keys(), (strings{"failover-timestamp T"}));
}

TEST_F(Failover, AStopDuringAFailoverKeepsTheActiveMember) {
    load(three_members);
    start_group();
    tovrin_group_ordered_failover(group());
    deliver("g", TOVRIN_MSG_STOP);
    dispatch();
    EXPECT_EQ(state("g"), TOVRIN_STATE_DOWN);
    EXPECT_EQ(group()->active_conn_name, "m1");
    EXPECT_EQ(group()->currently_failing_over, 0);
    EXPECT_FALSE(group()->failforward_event.pending());
    EXPECT_EQ(state("m1"), TOVRIN_STATE_DOWN);
}

TEST_F(Failover, AStopDuringAFailoverStopsTheStandbysItHadLeftRunning) {
    load(standbys);
    start_group();
    ASSERT_EQ(state("m2"), TOVRIN_STATE_TESTED);
    // m1 takes its time going down: the stop lands while the group waits.
    t.conn("m1")->is_deaf = 1;
    tovrin_group_ordered_failover(group());
    dispatch();
    ASSERT_EQ(state("g"), TOVRIN_STATE_STOPPING_MEMBERS);
    deliver("g", TOVRIN_MSG_STOP);
    dispatch();
    EXPECT_EQ(state("m2"), TOVRIN_STATE_DOWN);
    EXPECT_EQ(state("m3"), TOVRIN_STATE_DOWN);
    t.conn("m1")->is_deaf = 0;
    deliver("m1", TOVRIN_MSG_STOP);
    dispatch();
    EXPECT_EQ(state("g"), TOVRIN_STATE_DOWN);
    EXPECT_EQ(group()->active_conn_name, "m1");
}

// m1 has started but sits in testing: the operator's failover restarts it,
// and the group gate holds it in waiting to stop while the group runs. The
// group moves on when its failover timer fires; without that timer nothing
// else would ever move it, so the group is told of the failure at once.
class ExternalFailover : public Failover, public ::testing::WithParamInterface<bool> {};

TEST_P(ExternalFailover, OnAMemberThatNeverCameUp) {
    const bool timer = GetParam();
    load(std::string("orderedgroup g\n\tmember m1\n\tmember m2\n\tmutex\n\tfailovertimeout ") +
         (timer ? "30" : "0") + "\nconn m1\n\ttest /bin/true\nconn m2\n");
    deliver("g", TOVRIN_MSG_START);
    dispatch();
    ASSERT_EQ(state("m1"), TOVRIN_STATE_TESTING);
    ASSERT_EQ(state("g"), TOVRIN_STATE_STARTING_MEMBERS);
    log_capture log;
    tovrin_conn_external_failover(group());
    dispatch();
    if (timer) {
        EXPECT_EQ(state("m1"), TOVRIN_STATE_WAITING_TO_STOP);
        EXPECT_EQ(group()->active_conn_name, "m1");
        EXPECT_FALSE(log.contains(TOVRIN_LOG_INFO, "group g has failed"));
        ASSERT_TRUE(group()->failover_event.pending());
        tovrin_group_failover_timeout(-1, 0, group());
        dispatch();
        EXPECT_TRUE(
            log.contains(TOVRIN_LOG_INFO, "group g member m1 failed to come up before timeout"));
    } else {
        EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "group g has failed"));
    }
    EXPECT_EQ(group()->active_conn_name, "m2");
    EXPECT_EQ(state("m2"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("m1"), TOVRIN_STATE_DOWN);
}

INSTANTIATE_TEST_SUITE_P(FailoverTimer, ExternalFailover, ::testing::Bool());

TEST_F(Failover, StopAndRestartMessagesCancelAWaitingFailforward) {
    load(three_members);
    start_group();
    for (int type : {TOVRIN_MSG_STOP, TOVRIN_MSG_RESTART}) {
        SCOPED_TRACE(tovrin_msg_type_name(type));
        tovrin_group_arm_failforward(group(), 60);
        group()->currently_failing_over = 1;
        deliver("g", type);
        dispatch();
        EXPECT_FALSE(group()->failforward_event.pending());
        EXPECT_EQ(group()->currently_failing_over, 0);
    }
    // The restart brought the group back up around the same member.
    EXPECT_EQ(state("g"), TOVRIN_STATE_UP);
    EXPECT_EQ(group()->active_conn_name, "m1");
}

TEST_F(Failover, MemberFailedStopsAnAnygroupOnlyWhenNoMemberIsUp) {
    load("anygroup g\n\tmember a\n\tmember b\nconn a\nconn b\nconn plain\n");
    start_group();
    t.conn("a")->current_state = TOVRIN_STATE_TESTING;
    tovrin_group_member_failed(group());
    dispatch();
    EXPECT_EQ(state("g"), TOVRIN_STATE_UP);

    deliver("b", TOVRIN_MSG_STOP);
    dispatch();
    tovrin_group_member_failed(group());
    dispatch();
    EXPECT_EQ(state("g"), TOVRIN_STATE_DOWN);

    log_capture log;
    tovrin_group_member_failed(t.conn("plain"));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_FATAL,
                             "conn plain has been incorrectly told to check its members"));
}

TEST_F(Failover, AFreedGroupTakesItsTimersWithIt) {
    load(three_members);
    start_group();
    tovrin_group_ordered_failover(group());
    dispatch();
    ASSERT_TRUE(group()->failforward_event.pending());
    tovrin_group_arm_failover(group(), 0);
    ASSERT_TRUE(group()->failover_event.pending());
    t.inst.conns.unlink(group());
    // Both timers would fire on this turn if they were still in the loop.
    event_base_loop(t.inst.base.get(), EVLOOP_NONBLOCK);
    EXPECT_EQ(t.conn("g"), nullptr);
}

}  // namespace
