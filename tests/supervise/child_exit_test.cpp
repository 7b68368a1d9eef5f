#include "supervise/child_exit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

#include "supervise/action_fixture.h"
#include "supervise/state.h"

namespace {

using std::chrono::seconds;

class ChildExit : public action_fixture {
  protected:
    // Runs one test run of conn with its one test command replaced by
    // command, and waits for the verdict.
    void test_run(tovrin_conn *conn, const std::string &command) {
        conn->test_actions[0]->command = command;
        tovrin_conn_cancel_tests(conn);
        tovrin_conn_schedule_tests(conn, 0);
        ASSERT_TRUE(wait_for([&] { return conn->n_queued_test_actions <= 0; }));
    }

    // A clock on which every run of a command lasts two seconds, so that no
    // clean exit counts as quick.
    void use_slow_clock() {
        t.inst.clock_monotonic = [ticks = 0](timespec *now) mutable {
            int rc = clock_gettime(CLOCK_MONOTONIC, now);
            now->tv_sec += 2 * ++ticks;
            return rc;
        };
    }

    // Starts the up commands of conn and waits until the first one has ended
    // abnormally and been handled.
    void up_fails_once(tovrin_conn *conn) {
        tovrin_conn_queue_up_actions(conn);
        ASSERT_EQ(conn->queued_up_actions.size(), 1u);
        ASSERT_TRUE(wait_for([&] { return conn->queued_up_actions.empty(); }));
    }
};

TEST_F(ChildExit, StartAndStopExitsAreReportedByHowTheyEnded) {
    struct exit_case {
        const char *keyword;
        int state;
        const char *log_word;
        const char *command;
        int code;
        const char *failure;  // null: nothing logged at priority 300
        int message;
    };
    const exit_case cases[] = {
        {"start", TOVRIN_STATE_STARTING, "startfail", "sh -c 'exit 3'", 3,
         "start command failed for conn a : sh -c exit 3", TOVRIN_MSG_CHECK_START},
        {"start", TOVRIN_STATE_STARTING, "startfail", "sh -c 'ulimit -c 0; kill -SEGV $$'", 139,
         "start command failed for conn a : sh -c ulimit -c 0; kill -SEGV $$",
         TOVRIN_MSG_CHECK_START},
        {"start", TOVRIN_STATE_STARTING, "startfail", "sh -c 'kill -TERM $$'", 143, nullptr,
         TOVRIN_MSG_CHECK_START},
        {"start", TOVRIN_STATE_STARTING, "startfail", "sh -c 'kill -KILL $$'", 137, nullptr,
         TOVRIN_MSG_CHECK_START},
        {"start", TOVRIN_STATE_STARTING, "startfail", "true", 0, nullptr, TOVRIN_MSG_CHECK_START},
        {"start", TOVRIN_STATE_STARTING, "stopfail", "false", 1, nullptr, TOVRIN_MSG_CHECK_START},
        {"stop", TOVRIN_STATE_STOPPING, "stopfail", "sh -c 'exit 4'", 4,
         "stop command failed for conn a : sh -c exit 4", TOVRIN_MSG_CHECK_STOP},
        {"stop", TOVRIN_STATE_STOPPING, "startfail", "false", 1, nullptr, TOVRIN_MSG_CHECK_STOP},
        // Outside the state that waits for it, the last end says nothing...
        {"start", TOVRIN_STATE_UP, "startfail", "true", 0, nullptr, -1},
        // ...except to a conn stopping its up commands, which hears of every end.
        {"stop", TOVRIN_STATE_STOPPING_UP_COMMANDS, "stopfail", "true", 0, nullptr,
         TOVRIN_MSG_CHECK_STOP},
    };
    for (const exit_case &c : cases) {
        SCOPED_TRACE(std::string(c.keyword) + " " + c.command);
        tovrin_conn *a = load(std::string("conn a\n\tlog none\n\tlog +commanddebug\n\tlog +") +
                              c.log_word + "\n\t" + c.keyword + " " + c.command + "\n");
        ASSERT_NE(a, nullptr);
        t.inst.globals->instance_log_mask |= TOVRIN_INST_LOG_DEBUGGENERAL;
        a->current_state = c.state;
        if (std::string(c.keyword) == "stop")
            tovrin_conn_queue_stop_actions(a);
        else
            tovrin_conn_queue_start_actions(a);
        log.clear();
        tovrin_conn_run_queue(a);
        pid_t pid = a->queued_actions.front()->pid;
        ASSERT_TRUE(wait_for([&] { return a->queued_actions.empty(); }));

        const std::string p = std::to_string(pid), code = std::to_string(c.code);
        std::vector<log_record> expected;
        if (c.code > 128) {
            expected.push_back({TOVRIN_LOG_INFO, "DEBUG -- child process " + p +
                                                     " killed with a signal " +
                                                     std::to_string(c.code - 128)});
        }
        expected.push_back(
            {TOVRIN_LOG_INFO, "sigchild event for " + p + " with return code " + code});
        expected.push_back({TOVRIN_LOG_INFO,
                            "a sigchild event for action pid " + p + " with return code " + code});
        if (c.failure != nullptr)
            expected.push_back({TOVRIN_LOG_ERROR, c.failure});
        std::vector<log_record> seen;
        for (const log_record &record : log.records()) {
            if (record.message.find("parameter") == std::string::npos &&
                record.message.find("running command") == std::string::npos)
                seen.push_back(record);
        }
        EXPECT_EQ(seen, expected);
        std::vector<int> messages = take_messages(a);
        EXPECT_EQ(messages, c.message < 0 ? std::vector<int>{} : std::vector<int>{c.message});
        EXPECT_EQ(a->n_queued_start_actions + a->n_queued_stop_actions, 0);
        t.inst.conns.clear();
    }
}

TEST_F(ChildExit, TestRunVerdictsCountAndRestartPastTheThreshold) {
    struct threshold_case {
        int threshold;
        std::vector<const char *> runs;
        std::vector<int> failures;  // n_test_failures after each run
        int restart_after;          // run (from 1) that delivers restart; 0: none
    };
    const threshold_case cases[] = {
        {1, {"false", "false"}, {1, 2}, 2},
        {0, {"false"}, {1}, 1},
        {1, {"false", "true", "false", "true"}, {1, 0, 1, 0}, 0},
        {2, {"false", "false", "false"}, {1, 2, 3}, 3},
    };
    for (const threshold_case &c : cases) {
        SCOPED_TRACE("testthreshold " + std::to_string(c.threshold));
        tovrin_conn *a = load("conn a\n\ttestperiod 30\n\ttestthreshold " +
                              std::to_string(c.threshold) + "\n\ttest true\n");
        ASSERT_NE(a, nullptr);
        a->current_state = TOVRIN_STATE_UP;
        for (size_t run = 0; run < c.runs.size(); run++) {
            test_run(a, c.runs[run]);
            EXPECT_EQ(a->n_test_failures, c.failures[run]) << "run " << run + 1;
            bool restart = static_cast<int>(run + 1) == c.restart_after;
            EXPECT_EQ(take_messages(a),
                      restart ? std::vector<int>{TOVRIN_MSG_RESTART} : std::vector<int>{})
                << "run " << run + 1;
            // The next run is armed only when no restart is under way.
            EXPECT_EQ(a->test_event.pending(), !restart) << "run " << run + 1;
        }
        t.inst.conns.clear();
    }
}

TEST_F(ChildExit, TestRunVerdictsAreLoggedByStateAndMask) {
    tovrin_conn *a =
        load("conn a\n\ttestperiod 30\n\ttestthreshold 5\n\tlog +debug\n\ttest true\n");
    ASSERT_NE(a, nullptr);
    // The default mask: uptestsfail and downtestssucceed, not the other two.
    a->current_state = TOVRIN_STATE_UP;
    test_run(a, "false");
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "a test run failed"));
    log.clear();
    // A recovery is logged whatever the mask.
    test_run(a, "true");
    EXPECT_EQ(log.count(TOVRIN_LOG_INFO, "a test run succeeded"), 1);
    EXPECT_EQ(a->n_test_passes, 1);
    a->log_mask |= TOVRIN_LOG_UPTESTSSUCCEED;
    log.clear();
    test_run(a, "false");
    test_run(a, "true");
    EXPECT_EQ(log.count(TOVRIN_LOG_INFO, "a test run succeeded"), 2) << "recovery logged twice";

    // In testing, a passed run moves the conn on; a failed one is quiet
    // without downtestsfail.
    a->current_state = TOVRIN_STATE_TESTING;
    log.clear();
    test_run(a, "false");
    EXPECT_TRUE(log.records().empty());
    EXPECT_TRUE(take_messages(a).empty());
    test_run(a, "true");
    EXPECT_EQ(log.records(), (std::vector<log_record>{{TOVRIN_LOG_INFO, "a test run succeeded"},
                                                      {TOVRIN_LOG_INFO, "a test run succeeded"}}));
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_CHECK_START});

    // Outside testing, tested and up the verdict has no effect.
    a->current_state = TOVRIN_STATE_STARTING;
    tovrin_conn_cancel_tests(a);
    log.clear();
    test_run(a, "false");
    EXPECT_TRUE(log.contains(
        TOVRIN_LOG_INFO,
        "tovrin_conn_finished_test_actions: tests are finished, but conn a in state 2"));
    EXPECT_FALSE(a->test_event.pending());
    EXPECT_TRUE(take_messages(a).empty());
}

TEST_F(ChildExit, ARunFailsWhenAnyOfItsTestsFails) {
    tovrin_conn *a = load(
        "conn a\n\ttestperiod 30\n\ttestthreshold 5\n\ttest true\n"
        "\ttest false\n\ttest true\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_TESTING;
    tovrin_conn_schedule_tests(a, 0);
    ASSERT_TRUE(wait_for([&] { return a->n_queued_test_actions <= 0; }));
    EXPECT_EQ(a->n_test_failures, 1);
    EXPECT_EQ(a->n_test_passes, 0);
    EXPECT_TRUE(take_messages(a).empty());
}

TEST_F(ChildExit, ATestKilledAtItsLimitFailsEvenWhenItExitsCleanly) {
    tovrin_conn *a = load(
        "conn a\n\ttesttimeout 1\n\tcommandtimeout 60\n\ttestthreshold 0\n"
        "\tlog +commanddebug\n\ttest true\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_UP;
    test_run(a, "sh -c 'trap \"exit 0\" TERM; sleep 30 & wait'");
    EXPECT_TRUE(log.contains(TOVRIN_LOG_WARN, "warning: timeout for action sh on conn a"));
    bool clean_exit = false;
    for (const log_record &record : log.records())
        clean_exit |= record.message.ends_with(" with return code 0");
    EXPECT_TRUE(clean_exit);
    EXPECT_EQ(a->n_test_failures, 1);
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "a test run failed"));
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_RESTART});
}

TEST_F(ChildExit, ACleanUpExitRunsTheSameEntryAgainAtOnce) {
    tovrin_conn *a = load("conn a\n\trestartdelayfactor 1000\n\tup sh -c 'sleep 0.2'\n");
    ASSERT_NE(a, nullptr);
    use_slow_clock();
    a->current_state = TOVRIN_STATE_UP;
    tovrin_conn_queue_up_actions(a);
    tovrin_queued_action *entry = a->queued_up_actions.front().get();
    pid_t first = entry->pid;
    ASSERT_TRUE(wait_for([&] { return entry->pid != first && entry->pid != 0; }));
    ASSERT_EQ(a->queued_up_actions.size(), 1u);
    EXPECT_EQ(a->queued_up_actions.front().get(), entry);
    EXPECT_EQ(entry->state, TOVRIN_QA_RUNNING);
    EXPECT_EQ(a->up_actions[0]->restarts, 0);
    EXPECT_FALSE(a->up_action_failed_delay_event.pending());
    EXPECT_FALSE(entry->respawn_event.pending());
    EXPECT_TRUE(take_messages(a).empty());
    EXPECT_EQ(t.inst.running_actions.size(), 1u);
    EXPECT_EQ(t.inst.running_actions.count(entry->pid), 1u);
}

TEST_F(ChildExit, AnUpCommandThatKeepsExitingAtOnceIsSlowedDown) {
    tovrin_conn *a = load("conn a\n\tlog +commanddebug\n\tup true\n\tup true\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_UP;
    tovrin_conn_queue_up_actions(a);
    auto waiting = [&] {
        for (const auto &entry : a->queued_up_actions) {
            if (!entry->respawn_event.pending())
                return false;
        }
        return true;
    };
    ASSERT_TRUE(wait_for(waiting));
    const std::string slowed =
        "a: up command true keeps exiting at once; re-spawning it at most once a second";
    // One line for the conn, not one per command.
    EXPECT_EQ(log.count(TOVRIN_LOG_WARN, slowed), 1);
    for (const auto &entry : a->queued_up_actions) {
        EXPECT_EQ(entry->pid, 0);
        EXPECT_EQ(entry->state, TOVRIN_QA_IDLE);
        EXPECT_GE(entry->quick_exits, 3);
        EXPECT_TRUE(entry->throttled);
        double left = seconds_left(entry->respawn_event);
        EXPECT_GT(left, 0.0);
        EXPECT_LE(left, 1.1);
    }
    EXPECT_TRUE(t.inst.running_actions.empty());

    // When the timer fires the command runs again; still quick, so it waits
    // again, and the burst is not logged twice.
    tovrin_queued_action *entry = a->queued_up_actions.front().get();
    const std::string ran = "running command true for conn a";
    int runs = log.count(TOVRIN_LOG_INFO, ran);
    entry->respawn_event.activate();
    ASSERT_TRUE(wait_for(
        [&] { return log.count(TOVRIN_LOG_INFO, ran) > runs && entry->respawn_event.pending(); }));
    EXPECT_EQ(log.count(TOVRIN_LOG_WARN, slowed), 1);

    // Runs that last end the burst: clean exits re-run at once again.
    use_slow_clock();
    entry->respawn_event.activate();
    ASSERT_TRUE(wait_for([&] {
        return !entry->throttled && entry->quick_exits == 0 && !entry->respawn_event.pending();
    }));

    // Stopping ends the running command and drops the one waiting.
    a->current_state = TOVRIN_STATE_STOPPING_UP_COMMANDS;
    tovrin_conn_stop_up_actions(a);
    ASSERT_TRUE(wait_for([&] { return a->queued_up_actions.empty(); }));
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_CHECK_STOP});
}

TEST_F(ChildExit, FailedUpCommandsBackOffOneSecondPerRestart) {
    tovrin_conn *a = load("conn a\n\trestartdelayfactor 1000\n\tlog +debug\n\tup false\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_UP;
    for (int restarts = 1; restarts <= 3; restarts++) {
        up_fails_once(a);
        EXPECT_EQ(a->up_actions[0]->restarts, restarts);
        double left = seconds_left(a->up_action_failed_delay_event);
        EXPECT_GT(left, restarts - 0.5) << restarts;
        EXPECT_LE(left, restarts + 0.1) << restarts;
        EXPECT_TRUE(take_messages(a).empty()) << "the restart waits for the timer";
    }

    // Capped at three minutes.
    a->up_actions[0]->restarts = 500;
    up_fails_once(a);
    double left = seconds_left(a->up_action_failed_delay_event);
    EXPECT_GT(left, 179.0);
    EXPECT_LE(left, 180.1);

    // The timer restarts a conn that still runs, and nothing else.
    log.clear();
    a->up_action_failed_delay_event.activate();
    ASSERT_TRUE(wait_for([&] { return !t.inst.message_queue.empty(); }));
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_RESTART});
    EXPECT_EQ(log.records(),
              (std::vector<log_record>{{TOVRIN_LOG_INFO, "a up command failed, restarting"}}));
    a->current_state = TOVRIN_STATE_STOPPING;
    tovrin_up_action_failed_delay(-1, 0, a);
    tovrin_up_action_failed_delay(-1, 0, nullptr);
    EXPECT_TRUE(take_messages(a).empty());
}

TEST_F(ChildExit, SmallOrNoDelaysRestartAtOnceOrOnTheNextTurn) {
    struct delay_case {
        int factor;
        bool armed;
    };
    for (delay_case c : {delay_case{0, false}, delay_case{-5, false}, delay_case{500, true}}) {
        SCOPED_TRACE("restartdelayfactor " + std::to_string(c.factor));
        tovrin_conn *a = load("conn a\n\tlog +debug\n\trestartdelayfactor " +
                              std::to_string(c.factor) + "\n\tup false\n");
        ASSERT_NE(a, nullptr);
        a->current_state = TOVRIN_STATE_TESTING;
        log.clear();
        up_fails_once(a);
        if (c.armed) {
            // Below a second the timer fires on the next turn of the loop.
            EXPECT_TRUE(a->up_action_failed_delay_event.initialized());
            ASSERT_TRUE(wait_for([&] { return !t.inst.message_queue.empty(); }));
        } else {
            EXPECT_FALSE(a->up_action_failed_delay_event.initialized());
        }
        EXPECT_FALSE(a->up_action_failed_delay_event.pending());
        EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "a up command failed, restarting"));
        EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_RESTART});
        t.inst.conns.clear();
    }
}

TEST_F(ChildExit, MaxRestartsLeavesTheUpCommandEnded) {
    tovrin_conn *a = load("conn a\n\tmaxrestarts 2\n\tlog +debug\n\tup false\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_UP;
    for (int exit = 1; exit <= 2; exit++) {
        up_fails_once(a);
        EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_RESTART}) << exit;
    }
    log.clear();
    up_fails_once(a);
    EXPECT_EQ(a->up_actions[0]->restarts, 3);
    EXPECT_TRUE(take_messages(a).empty());
    EXPECT_TRUE(log.records().empty());
    EXPECT_FALSE(a->up_action_failed_delay_event.pending());
    EXPECT_TRUE(a->queued_up_actions.empty());
}

TEST_F(ChildExit, ElapsedTimeBetweenFailuresIsLoggedInWholeSeconds) {
    tovrin_conn *a = load("conn a\n\tlog +debug\n\tup false\n");
    ASSERT_NE(a, nullptr);
    timespec fake{1000, 250000000};
    int clock_rc = 0;
    t.inst.clock_monotonic = [&](timespec *now) {
        *now = fake;
        return clock_rc;
    };
    a->current_state = TOVRIN_STATE_UP;
    up_fails_once(a);
    EXPECT_EQ(a->up_actions[0]->last_failure_sec, 1000);
    EXPECT_EQ(a->up_actions[0]->last_failure_nsec, 250000000);
    for (const log_record &record : log.records())
        EXPECT_EQ(record.message.find("abnormal exit after"), std::string::npos) << record;

    fake = timespec{1125, 900000000};
    log.clear();
    up_fails_once(a);
    EXPECT_EQ(log.records(),
              (std::vector<log_record>{
                  {TOVRIN_LOG_INFO, "a: up action: abnormal exit after: 2(min):125(s)"},
                  {TOVRIN_LOG_INFO, "a up command failed, restarting"}}));

    // An unreadable clock skips the message and keeps the back-off going.
    clock_rc = -1;
    log.clear();
    take_messages(a);
    up_fails_once(a);
    EXPECT_EQ(log.records(),
              (std::vector<log_record>{{TOVRIN_LOG_INFO, "a up command failed, restarting"}}));
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_RESTART});
    EXPECT_EQ(a->up_actions[0]->restarts, 3);

    // An exit outside the running states starts the count over.
    clock_rc = 0;
    tovrin_conn_queue_up_actions(a);
    a->current_state = TOVRIN_STATE_STOPPING_UP_COMMANDS;
    ASSERT_TRUE(wait_for([&] { return a->queued_up_actions.empty(); }));
    EXPECT_EQ(a->up_actions[0]->restarts, 0);
    EXPECT_EQ(a->up_actions[0]->last_failure_sec, 0);
    EXPECT_EQ(a->up_actions[0]->last_failure_nsec, 0);
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_CHECK_STOP});
}

TEST_F(ChildExit, UnknownChildrenAreReapedAndIgnored) {
    tovrin_conn *a = load("conn a\n\tstart sleep 30\n");
    ASSERT_NE(a, nullptr);
    t.inst.globals->instance_log_mask |= TOVRIN_INST_LOG_DEBUGGENERAL;
    a->current_state = TOVRIN_STATE_STARTING;
    tovrin_conn_queue_start_actions(a);
    tovrin_conn_run_queue(a);
    pid_t stranger = fork();
    ASSERT_GE(stranger, 0);
    if (stranger == 0)
        _exit(5);
    ASSERT_TRUE(wait_for([&] { return process_gone(stranger); }, seconds(5)));
    EXPECT_TRUE(log.contains(
        TOVRIN_LOG_INFO, "sigchild event for " + std::to_string(stranger) + " with return code 5"));
    EXPECT_EQ(a->queued_actions.size(), 1u);
    EXPECT_EQ(a->queued_actions.front()->state, TOVRIN_QA_RUNNING);
    EXPECT_TRUE(take_messages(a).empty());
}

}  // namespace
