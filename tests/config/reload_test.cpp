#include "config/reload.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <string>
#include <vector>

#include "config/load.h"
#include "groups/failover.h"
#include "supervise/action_queue.h"
#include "supervise/conn.h"
#include "supervise/message.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"
#include "support/log_capture.h"
#include "support/test_inst.h"

namespace {

using strings = std::vector<std::string>;

// Conns without commands move by messages alone, so a whole reload (first
// pass, waiting, merge) runs here against a real event base.
class Reload : public ::testing::Test {
  protected:
    void start(const std::string &text) {
        t.write_config(text);
        ASSERT_EQ(t.load(), 0);
        for (tovrin_conn &conn : t.inst.conns) {
            if (conn.children.empty())
                tovrin_conn_deliver_message(&t.inst, nullptr, &conn, TOVRIN_MSG_START);
        }
        dispatch();
        t.take_store_requests();
    }

    // Writes the file and sends the daemon a SIGHUP, as an operator would.
    void reload(const std::string &text) {
        t.write_config(text);
        tovrin_config_sighup(SIGHUP, EV_SIGNAL, &t.inst);
    }

    // Runs the loop until no message is left and no reload check waits.
    void dispatch() { ASSERT_TRUE(t.dispatch()); }

    // The queued messages, as "type name".
    strings queued() {
        strings out;
        for (const tovrin_msg &msg : t.inst.message_queue)
            out.push_back(std::string(tovrin_msg_type_name(msg.type)) + " " + msg.dst->name);
        return out;
    }

    strings names() {
        strings out;
        for (const tovrin_conn &conn : t.inst.conns)
            out.push_back(conn.name);
        return out;
    }

    // Store requests other than status changes, with '|' for the separator.
    strings other_requests() {
        strings out;
        for (const std::string &r : t.take_store_requests()) {
            if (r.find(".status|2|") == std::string::npos)
                out.push_back(r);
        }
        return out;
    }

    int state(const std::string &name) { return t.conn(name)->current_state; }

    test_inst t;
};

TEST_F(Reload, AnUnchangedFileKeepsEveryConnAndStartsTheChildless) {
    const std::string text =
        "global\n\tkeepalive 7\nconn A\n\tparent P\nconn P\nconn lone\n\tstord_var v k.v\n";
    start(text);
    tovrin_conn *a = t.conn("A");
    tovrin_conn *p = t.conn("P");
    ASSERT_EQ(state("A"), TOVRIN_STATE_UP);
    // The reload must arm the keepalive again, not find it armed.
    t.inst.tovrin_timer.del();

    log_capture log;
    reload(text);
    EXPECT_EQ(log.messages(), (strings{"SIGHUP - Reloading Config", "Finished Reloading Config"}));
    EXPECT_FALSE(t.inst.reloading_config);
    EXPECT_TRUE(t.inst.new_conns.empty());
    EXPECT_EQ(t.inst.new_globals, nullptr);
    // The same records, still up; P has a child and gets no start.
    EXPECT_EQ(t.conn("A"), a);
    EXPECT_EQ(t.conn("P"), p);
    EXPECT_EQ(queued(), (strings{"start A", "start lone"}));
    EXPECT_TRUE(t.inst.tovrin_timer.pending());
    // The duplicate's subscription came and went; the kept one stays.
    EXPECT_EQ(other_requests(), (strings{"2|tovrin|k.v", "3|tovrin|k.v"}));
    EXPECT_EQ(t.inst.store_vars.size(), 1u);
    dispatch();
    EXPECT_EQ(state("A"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("P"), TOVRIN_STATE_UP);
}

TEST_F(Reload, ARemovedConnIsStoppedThenFreedWithItsStatus) {
    start("conn A\nconn B\n");
    log_capture log(TOVRIN_LOG_DEBUG);
    reload("conn B\n");
    EXPECT_TRUE(log.contains(TOVRIN_LOG_DEBUG, "conn [A] is new, sending stop"));
    EXPECT_TRUE(t.inst.reloading_config);
    EXPECT_TRUE(t.inst.config_reload_timer.pending());
    EXPECT_EQ(queued(), (strings{"stop A"}));
    dispatch();
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "removing old conn: A"));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "Finished Reloading Config"));
    EXPECT_FALSE(t.inst.config_reload_timer.pending());
    EXPECT_EQ(names(), (strings{"B"}));
    EXPECT_EQ(other_requests(), (strings{"9|tovrin.A.status"}));
    EXPECT_EQ(state("B"), TOVRIN_STATE_UP);
}

TEST_F(Reload, ARemovedConnThatIsDownGoesAtOnceAndItsMessagesWithIt) {
    start("conn A\nconn B\nconn gone\n");
    tovrin_conn_deliver_message(&t.inst, nullptr, t.conn("gone"), TOVRIN_MSG_STOP);
    dispatch();
    ASSERT_EQ(state("gone"), TOVRIN_STATE_DOWN);
    tovrin_conn *b = t.conn("B");
    // A message from the doomed conn to a kept one loses only its sender.
    tovrin_conn_deliver_message(&t.inst, t.conn("gone"), b, TOVRIN_MSG_TEST);
    log_capture log;
    reload("conn A\nconn B\n");
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "removing old conn: gone"));
    EXPECT_FALSE(t.inst.reloading_config);
    EXPECT_EQ(t.conn("gone"), nullptr);
    ASSERT_FALSE(t.inst.message_queue.empty());
    EXPECT_EQ(t.inst.message_queue.front().dst, b);
    EXPECT_EQ(t.inst.message_queue.front().src, nullptr);
    for (const tovrin_msg &msg : t.inst.message_queue)
        EXPECT_NE(msg.dst->name, "gone");
    dispatch();
}

TEST_F(Reload, AChangedConnThatIsDownIsReplacedWithoutAStop) {
    start("conn A\n\tparent P\nconn P\n\tparent Q\nconn Q\nconn X\n");
    tovrin_conn_deliver_message(&t.inst, nullptr, t.conn("P"), TOVRIN_MSG_STOP);
    dispatch();
    ASSERT_EQ(state("P"), TOVRIN_STATE_DOWN);
    ASSERT_EQ(state("A"), TOVRIN_STATE_DOWN);
    tovrin_conn *old_p = t.conn("P");

    log_capture log;
    // P gains a test period; A loses its parent, and so does P a child.
    reload("conn A\nconn P\n\tparent Q\n\ttestperiod 9\nconn Q\nconn X\n");
    EXPECT_TRUE(
        log.contains(TOVRIN_LOG_INFO, "conn [P] has changed, but still remained in DOWN state"));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "removing changed conn: P"));
    EXPECT_FALSE(t.inst.reloading_config);
    EXPECT_NE(t.conn("P"), old_p);
    // Kept conns first in their order, then the changed ones in file order.
    EXPECT_EQ(names(), (strings{"Q", "X", "A", "P"}));
    // Without children now, both replacements are started.
    EXPECT_EQ(queued(), (strings{"start X", "start A", "start P"}));
    dispatch();
    EXPECT_EQ(state("P"), TOVRIN_STATE_UP);
}

TEST_F(Reload, AChangedConnThatIsUpIsStoppedReplacedAndStartedEvenWithChildren) {
    start("conn A\n\tparent P\nconn P\n");
    log_capture log(TOVRIN_LOG_DEBUG);
    reload("conn A\n\tparent P\nconn P\n\ttestdelay 3\n");
    EXPECT_TRUE(log.contains(TOVRIN_LOG_DEBUG, "conn [P] has changed, sending stop"));
    EXPECT_EQ(t.inst.new_conns.find("P")->start_after_reload, 1);
    EXPECT_EQ(queued(), (strings{"stop P"}));
    dispatch();
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "removing changed conn: P"));
    EXPECT_EQ(t.conn("P")->testdelay, 3);
    EXPECT_EQ(t.conn("P")->start_after_reload, 0);
    EXPECT_EQ(state("P"), TOVRIN_STATE_UP);
    // A went down with its parent and came back with the new one.
    EXPECT_EQ(state("A"), TOVRIN_STATE_UP);
}

TEST_F(Reload, StartsWaitForTheMergeAndTheMergeHonoursThem) {
    start("global\n\tinstancelog +debugmessages\nconn A\n\tparent P\nconn P\nconn C\n");
    tovrin_conn_deliver_message(&t.inst, nullptr, t.conn("C"), TOVRIN_MSG_STOP);
    dispatch();
    // Q is new and makes P changed; its stop is queued, not yet handled.
    reload(
        "global\n\tinstancelog +debugmessages\nconn A\n\tparent P\nconn P\n\tparent Q\n"
        "conn C\nconn Q\n");
    ASSERT_TRUE(t.inst.reloading_config);
    log_capture log;
    tovrin_conn_deliver_message(&t.inst, nullptr, t.conn("C"), TOVRIN_MSG_START);
    tovrin_conn_deliver_message(&t.inst, nullptr, t.conn("A"), TOVRIN_MSG_RESTART);
    dispatch();
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO,
                             "C: not handling start message during config "
                             "reloading"));
    EXPECT_FALSE(t.inst.reloading_config);
    EXPECT_EQ(state("C"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("A"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("Q"), TOVRIN_STATE_UP);
}

TEST_F(Reload, TheTimeoutStopsEverythingAndTheMergeStartsWhatRan) {
    start("global\n\tconfigreloadtimeout 5\nconn A\n\tparent P\nconn P\nconn B\n");
    tovrin_conn_deliver_message(&t.inst, nullptr, t.conn("B"), TOVRIN_MSG_STOP);
    dispatch();
    // The new timeout counts from the next reload only.
    reload("global\n\tconfigreloadtimeout 0\nconn A\n\tparent P\nconn P\n\ttestperiod 2\nconn B\n");
    ASSERT_TRUE(t.inst.config_reload_timer.pending());
    timeval left{};
    event_pending(t.inst.config_reload_timer.raw(), EV_TIMEOUT, &left);
    timeval now{};
    event_base_gettimeofday_cached(t.inst.base.get(), &now);
    EXPECT_LE(left.tv_sec - now.tv_sec, 5);
    EXPECT_GE(left.tv_sec - now.tv_sec, 3);

    log_capture log;
    t.inst.message_queue.clear();  // P's stop "never completes"
    tovrin_config_reload_timeout(-1, EV_TIMEOUT, &t.inst);
    EXPECT_EQ(log.records(), (std::vector<log_record>{
                                 {TOVRIN_LOG_FATAL,
                                  "Unexpected timeout while reloading "
                                  "configuration."},
                                 {TOVRIN_LOG_FATAL,
                                  "Stopping all connections to let config "
                                  "reload"},
                             }));
    EXPECT_EQ(queued(), (strings{"stop A", "stop P", "stop B"}));
    EXPECT_EQ(t.conn("A")->start_after_reload, 1);
    EXPECT_EQ(t.conn("B")->start_after_reload, 0);
    dispatch();
    EXPECT_FALSE(t.inst.reloading_config);
    EXPECT_EQ(state("A"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("P"), TOVRIN_STATE_UP);
    // B was down and has no children: the start pass starts it as well.
    EXPECT_EQ(state("B"), TOVRIN_STATE_UP);

    // 0 now in force: the next reload waits without a timer.
    reload("global\n\tconfigreloadtimeout 0\nconn A\n\tparent P\nconn P\nconn B\n");
    EXPECT_TRUE(t.inst.reloading_config);
    EXPECT_FALSE(t.inst.config_reload_timer.pending());
    dispatch();
    EXPECT_FALSE(t.inst.reloading_config);
}

TEST_F(Reload, ASecondSighupAbandonsTheWaitingReload) {
    start("conn A\nconn B\n");
    reload("conn B\n");
    ASSERT_TRUE(t.inst.reloading_config);
    t.inst.message_queue.clear();  // A's stop is lost: the reload keeps waiting
    // A parse error leaves the old configuration in force, idle.
    log_capture log;
    reload("conn B\n\tbogus-keyword\n");
    EXPECT_TRUE(log.contains(TOVRIN_LOG_FATAL, "Failed To Load Config"));
    EXPECT_FALSE(t.inst.reloading_config);
    EXPECT_FALSE(t.inst.config_reload_timer.pending());
    EXPECT_TRUE(t.inst.new_conns.empty());
    EXPECT_EQ(names(), (strings{"A", "B"}));
    EXPECT_EQ(state("A"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("B"), TOVRIN_STATE_UP);

    // A good file afterwards reloads from the start.
    reload("conn A\n");
    EXPECT_TRUE(t.inst.reloading_config);
    EXPECT_EQ(queued(), (strings{"stop B"}));
    dispatch();
    EXPECT_EQ(names(), (strings{"A"}));
}

TEST_F(Reload, AFreedConnTakesItsTimersAndChildrenWithIt) {
    start("conn A\n\ttestperiod 1\nconn B\n");
    tovrin_conn *a = t.conn("A");
    tovrin_conn_deliver_message(&t.inst, nullptr, a, TOVRIN_MSG_STOP);
    dispatch();
    // Timers of every kind still armed on a conn that is down.
    tovrin_conn_schedule_tests(a, 1);
    a->failover_event.set<tovrin_group_failover_timeout>(t.inst.base.get(), -1, 0, a);
    a->failover_event.add_seconds(0);
    reload("conn B\n");
    EXPECT_EQ(t.conn("A"), nullptr);
    // Had either timer stayed in the loop, it would fire on freed memory now.
    dispatch();
    event_base_loop(t.inst.base.get(), EVLOOP_NONBLOCK);
}

TEST_F(Reload, AFailoverDuringAReloadKeepsTheActiveMember) {
    start("orderedgroup g\n\tmember m1\n\tmember m2\n\tmutex\nconn m1\nconn m2\nconn X\n");
    ASSERT_EQ(state("g"), TOVRIN_STATE_UP);
    reload("orderedgroup g\n\tmember m1\n\tmember m2\n\tmutex\nconn m1\nconn m2\n");
    ASSERT_TRUE(t.inst.reloading_config);
    log_capture log;
    tovrin_conn_deliver_message(&t.inst, nullptr, t.conn("m1"), TOVRIN_MSG_RESTART);
    dispatch();
    EXPECT_TRUE(log.contains(
        TOVRIN_LOG_INFO, "group g failover during reloading, keeping current active member m1"));
    EXPECT_EQ(t.conn("g")->active_conn_name, "m1");
    EXPECT_FALSE(t.inst.reloading_config);
    EXPECT_EQ(state("g"), TOVRIN_STATE_UP);
    EXPECT_EQ(state("m1"), TOVRIN_STATE_UP);
}

}  // namespace
