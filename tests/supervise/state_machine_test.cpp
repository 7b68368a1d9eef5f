#include "supervise/state_machine.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "store/command.h"
#include "supervise/conn.h"
#include "supervise/keepalive.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"
#include "support/log_capture.h"
#include "support/test_inst.h"

namespace {

using strings = std::vector<std::string>;

// Conns without commands move through the state machine by messages alone,
// so whole walks can be checked here against a real event base, reading the
// status requests the store would receive.
class StateMachine : public ::testing::Test {
  protected:
    void load(const std::string &text) {
        t.write_config(text);
        ASSERT_EQ(t.load(), 0);
        t.take_store_requests();
    }

    void dispatch() { ASSERT_TRUE(t.dispatch()); }

    void deliver(const std::string &name, int type) { t.deliver(name, type); }

    // The status changes published since the last call, as "name state".
    strings statuses() {
        strings out;
        for (const std::string &request : t.take_store_requests()) {
            const std::string prefix = "1|tovrin.";
            const std::string marker = ".status|2|";
            size_t at = request.find(marker);
            if (request.rfind(prefix, 0) != 0 || at == std::string::npos)
                continue;
            out.push_back(request.substr(prefix.size(), at - prefix.size()) + " " +
                          request.substr(at + marker.size()));
        }
        return out;
    }

    int state(const std::string &name) { return t.conn(name)->current_state; }

    test_inst t;
};

TEST_F(StateMachine, MessagesAreHandledInDeliveryOrderIncludingOwnMessages) {
    load("conn A\nconn B\n");
    deliver("A", TOVRIN_MSG_START);
    deliver("A", TOVRIN_MSG_START);
    deliver("B", TOVRIN_MSG_START);
    dispatch();
    // A's own check start waits behind B's start.
    EXPECT_EQ(statuses(), (strings{
                              "A waiting to start",
                              "A starting",
                              "B waiting to start",
                              "A starting up commands",
                              "A testing",
                              "B starting",
                              "A tested",
                              "A up",
                              "B starting up commands",
                              "B testing",
                              "B tested",
                              "B up",
                          }));
}

TEST_F(StateMachine, AConnWithoutCommandsWalksEveryStateToUpOnce) {
    load("conn solo\n");
    deliver("solo", TOVRIN_MSG_START);
    dispatch();
    EXPECT_EQ(statuses(),
              (strings{"solo waiting to start", "solo starting", "solo starting up commands",
                       "solo testing", "solo tested", "solo up"}));
    EXPECT_EQ(state("solo"), TOVRIN_STATE_UP);
    EXPECT_EQ(t.conn("solo")->previous_state, TOVRIN_STATE_TESTED);
}

TEST_F(StateMachine, CheckStartActsOnlyOnActiveConns) {
    load("conn a\n");
    deliver("a", TOVRIN_MSG_CHECK_START);
    dispatch();
    EXPECT_TRUE(statuses().empty());
    EXPECT_EQ(state("a"), TOVRIN_STATE_DOWN);

    t.conn("a")->current_state = TOVRIN_STATE_TESTING;
    deliver("a", TOVRIN_MSG_CHECK_START);
    dispatch();
    EXPECT_EQ(statuses(), (strings{"a tested", "a up"}));
}

TEST_F(StateMachine, DeafRecipientsGetNothingAndDebugNamesTheDaemon) {
    load("global\n\tinstancelog +debugmessages\nconn a\n\tparent ghost\n");
    log_capture log;
    deliver("ghost", TOVRIN_MSG_STOP);
    EXPECT_TRUE(t.inst.message_queue.empty());
    deliver("a", TOVRIN_MSG_START);
    EXPECT_EQ(t.inst.message_queue.size(), 1u);
    const std::vector<log_record> expected = {
        {TOVRIN_LOG_INFO, "Message from (NULL) to ghost of type stop"},
        {TOVRIN_LOG_INFO, "Message from (NULL) to a of type start"},
    };
    EXPECT_EQ(log.records(), expected);
    tovrin_conn_deliver_message(&t.inst, nullptr, nullptr, TOVRIN_MSG_START);
    EXPECT_TRUE(log.contains(TOVRIN_LOG_FATAL,
                             "tovrin_conn_deliver_message called with a NULL receipient"));
}

TEST_F(StateMachine, AChildWaitsForItsParent) {
    load("conn A\n\tparent P\nconn P\n");
    deliver("A", TOVRIN_MSG_START);
    dispatch();
    EXPECT_EQ(statuses(),
              (strings{"A waiting to start", "P waiting to start", "P starting",
                       "P starting up commands", "P testing", "P tested", "P up", "A starting",
                       "A starting up commands", "A testing", "A tested", "A up"}));
}

TEST_F(StateMachine, StoppingAParentStopsItsUpChildFirst) {
    load("conn A\n\tparent P\nconn P\n");
    deliver("A", TOVRIN_MSG_START);
    dispatch();
    statuses();

    deliver("P", TOVRIN_MSG_STOP);
    dispatch();
    EXPECT_EQ(statuses(),
              (strings{"P waiting to stop", "A waiting to stop", "A stopping up commands",
                       "A stopping", "A down", "P stopping up commands", "P stopping", "P down"}));
}

TEST_F(StateMachine, RestartOfAnUpConnGoesDownAndComesBack) {
    load("conn a\n\tlog +uptransitions\n");
    deliver("a", TOVRIN_MSG_START);
    dispatch();
    statuses();
    log_capture log;
    deliver("a", TOVRIN_MSG_RESTART);
    dispatch();
    EXPECT_EQ(statuses(), (strings{"a waiting to stop", "a stopping up commands", "a stopping",
                                   "a down", "a waiting to start", "a starting",
                                   "a starting up commands", "a testing", "a tested", "a up"}));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "a is no longer running successfully"));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "a is now running successfully"));
}

TEST_F(StateMachine, AStartWhileStoppingBringsTheConnBack) {
    load("conn a\n");
    deliver("a", TOVRIN_MSG_START);
    dispatch();
    statuses();
    deliver("a", TOVRIN_MSG_STOP);
    deliver("a", TOVRIN_MSG_START);
    dispatch();
    strings seen = statuses();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.front(), "a waiting to stop");
    EXPECT_NE(std::find(seen.begin(), seen.end(), "a down"), seen.end());
    EXPECT_EQ(seen.back(), "a up");
    EXPECT_EQ(t.conn("a")->restart_after_stopping, 0);
}

TEST_F(StateMachine, UpTransitionsWordGatesTheRunningLines) {
    load("conn a\n\tlog -uptransitions\n");
    log_capture log;
    deliver("a", TOVRIN_MSG_START);
    dispatch();
    deliver("a", TOVRIN_MSG_STOP);
    dispatch();
    EXPECT_EQ(state("a"), TOVRIN_STATE_DOWN);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(StateMachine, OtherTransitionsLogsEveryPublication) {
    load("conn a\n\tlog +othertransitions\n");
    log_capture log;
    deliver("a", TOVRIN_MSG_START);
    dispatch();
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "a is now waiting to start"));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "a is now up"));
}

TEST_F(StateMachine, KeepaliveStartsDownConnsWhoseParentsAreUp) {
    load("conn A\n\tparent P\nconn P\nconn lonely\n\tparent ghost\n");
    deliver("P", TOVRIN_MSG_START);
    dispatch();
    // P coming up started its child too; an operator then stops A.
    ASSERT_EQ(state("A"), TOVRIN_STATE_UP);
    deliver("A", TOVRIN_MSG_STOP);
    dispatch();
    ASSERT_EQ(state("A"), TOVRIN_STATE_DOWN);

    log_capture log;
    tovrin_keepalive(-1, EV_TIMEOUT, &t.inst);
    dispatch();
    EXPECT_TRUE(
        log.contains(TOVRIN_LOG_ERROR, "Keepalive found incorrectly down conn A - starting now"));
    EXPECT_EQ(state("A"), TOVRIN_STATE_UP);
    // P stays as it is; a deaf parent is never up, and a deaf conn is never
    // started.
    EXPECT_EQ(state("lonely"), TOVRIN_STATE_DOWN);
    EXPECT_EQ(log.count(TOVRIN_LOG_ERROR, "Keepalive found incorrectly down conn P - starting now"),
              0);
    EXPECT_EQ(
        log.count(TOVRIN_LOG_ERROR, "Keepalive found incorrectly down conn ghost - starting now"),
        0);
    // It arms itself again for the configured period.
    EXPECT_TRUE(t.inst.tovrin_timer.pending());
}

TEST(Keepalive, ArmAndCancelFollowTheTimer) {
    // An instance whose timer was never set up, as before start-up ends.
    tovrin_inst inst;
    inst.base.reset(event_base_new());
    inst.globals = tovrin_globals_new();
    inst.globals->keepalive = 5;
    log_capture log;
    tovrin_keepalive_cancel(&inst);
    tovrin_keepalive_arm(&inst);
    EXPECT_TRUE(inst.tovrin_timer.pending());
    tovrin_keepalive_arm(&inst);  // already pending: nothing
    tovrin_keepalive_cancel(&inst);
    EXPECT_FALSE(inst.tovrin_timer.pending());
    tovrin_keepalive_arm(&inst);
    EXPECT_TRUE(inst.tovrin_timer.pending());
    const std::vector<log_record> expected = {
        {TOVRIN_LOG_WARN, "141 inst's tovrin_timer not initialized yet, skip deleting it"},
        {TOVRIN_LOG_WARN, "122 inst's tovrin_timer not initialized yet, set and add it"},
    };
    EXPECT_EQ(log.records(), expected);

    tovrin_keepalive_cancel(&inst);
    inst.globals->keepalive = 0;
    tovrin_keepalive_arm(&inst);
    EXPECT_FALSE(inst.tovrin_timer.pending());
}

TEST_F(StateMachine, ExternalCommandsActThroughMessages) {
    load("conn wan\n");
    ASSERT_EQ(tovrin_handle_command(&t.inst, "wan,cli,start"), 0);
    dispatch();
    EXPECT_EQ(state("wan"), TOVRIN_STATE_UP);
    ASSERT_EQ(tovrin_handle_command(&t.inst, "wan,x,stopnow"), 0);
    dispatch();
    EXPECT_EQ(state("wan"), TOVRIN_STATE_DOWN);
    ASSERT_EQ(tovrin_handle_command(&t.inst, "wan,x,start_keepalive"), 0);
    dispatch();
    EXPECT_EQ(state("wan"), TOVRIN_STATE_UP);
    EXPECT_EQ(tovrin_handle_command(&t.inst, "wan,stop"), -1);
    EXPECT_EQ(tovrin_handle_command(&t.inst, "wan,,stop"), -1);
    dispatch();
    EXPECT_EQ(state("wan"), TOVRIN_STATE_UP);
}

TEST_F(StateMachine, StartsAreDeferredDuringAReload) {
    load("global\n\tinstancelog +debugmessages\nconn a\n");
    t.inst.reloading_config = true;
    log_capture log;
    deliver("a", TOVRIN_MSG_START);
    dispatch();
    EXPECT_EQ(state("a"), TOVRIN_STATE_DOWN);
    EXPECT_EQ(t.conn("a")->start_after_reload, 1);
    EXPECT_TRUE(
        log.contains(TOVRIN_LOG_INFO, "a: not handling start message during config reloading"));
}

TEST_F(StateMachine, AnAnyGroupComesUpWithAMemberAndStopsWithoutOne) {
    load("anygroup g\n\tmember m1\n\tmember m2\nconn m1\nconn m2\n");
    deliver("g", TOVRIN_MSG_START);
    dispatch();
    EXPECT_EQ(state("g"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("m1"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("m2"), TOVRIN_STATE_UP);

    deliver("m1", TOVRIN_MSG_STOP);
    dispatch();
    EXPECT_EQ(state("g"), TOVRIN_STATE_UP);  // m2 is still up
    deliver("m2", TOVRIN_MSG_STOP);
    dispatch();
    EXPECT_EQ(state("m2"), TOVRIN_STATE_DOWN);
    EXPECT_EQ(state("g"), TOVRIN_STATE_DOWN);
}

TEST_F(StateMachine, AGroupStopWaitsForItsMembers) {
    load("anygroup g\n\tmember m\n\tlog +othertransitions\nconn m\n");
    deliver("g", TOVRIN_MSG_START);
    dispatch();
    ASSERT_EQ(state("g"), TOVRIN_STATE_UP);
    log_capture log;
    // Stopping members while m is still up: the group waits and says so.
    t.conn("g")->current_state = TOVRIN_STATE_STOPPING_MEMBERS;
    tovrin_group_stop(t.conn("g"));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "group g is waiting on members to come down"));
    EXPECT_EQ(state("g"), TOVRIN_STATE_STOPPING_MEMBERS);
}

}  // namespace
