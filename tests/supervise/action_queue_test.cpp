#include "supervise/action_queue.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include "supervise/action_fixture.h"
#include "supervise/state.h"

namespace {

using std::chrono::seconds;

class ActionQueue : public action_fixture {};

TEST_F(ActionQueue, StartActionsRunOneAfterTheOther) {
    const std::string first = t.root.file("first");
    tovrin_conn *a = load(
        "conn a\n\tcommandtimeout 0\n\tlog +startfail\n\tlog +commanddebug\n"
        "\tstart sh -c 'sleep 0.2; touch " +
        first +
        "'\n"
        "\tstart test -e " +
        first + "\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_STARTING;
    tovrin_conn_queue_start_actions(a);
    EXPECT_EQ(a->n_queued_start_actions, 2);
    ASSERT_EQ(a->queued_actions.size(), 2u);
    EXPECT_EQ(a->queued_actions.front()->state, TOVRIN_QA_IDLE) << "queueing starts nothing";

    tovrin_conn_run_queue(a);
    tovrin_queued_action *head = a->queued_actions.front().get();
    tovrin_queued_action *second = a->queued_actions.back().get();
    EXPECT_EQ(head->state, TOVRIN_QA_RUNNING);
    pid_t first_pid = head->pid;
    EXPECT_GT(first_pid, 0);
    EXPECT_EQ(second->state, TOVRIN_QA_IDLE);
    EXPECT_EQ(second->pid, 0);

    // One reaping may handle both exits, so the order is read from the log:
    // the second command was started by the handling of the first exit.
    ASSERT_TRUE(wait_for([&] { return a->n_queued_start_actions == 0; }));
    EXPECT_TRUE(a->queued_actions.empty());
    std::vector<std::string> steps;
    for (const log_record &record : log.records()) {
        if (record.message.starts_with("running command") ||
            record.message.starts_with("a sigchild event"))
            steps.push_back(record.message.substr(0, record.message.find(" with return")));
    }
    ASSERT_EQ(steps.size(), 4u);
    EXPECT_EQ(steps[0], "running command sh for conn a");
    EXPECT_EQ(steps[1], "a sigchild event for action pid " + std::to_string(first_pid));
    EXPECT_EQ(steps[2], "running command test for conn a");
    EXPECT_TRUE(steps[3].starts_with("a sigchild event for action pid ")) << steps[3];
    // The test found what the first command left, and the conn heard only
    // of the last end.
    for (const log_record &record : log.records())
        EXPECT_EQ(record.message.find("command failed"), std::string::npos) << record;
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_CHECK_START});
    EXPECT_TRUE(t.inst.running_actions.empty());
}

TEST_F(ActionQueue, QueueingOnTopOfCountedActionsWarnsAndAdds) {
    struct counted_case {
        void (*queue)(tovrin_conn *);
        int tovrin_conn::*counter;
        const char *warning;
    };
    const counted_case cases[] = {
        {tovrin_conn_queue_start_actions, &tovrin_conn::n_queued_start_actions,
         "queueing start actions for a; it already had 2"},
        {tovrin_conn_queue_stop_actions, &tovrin_conn::n_queued_stop_actions,
         "queueing stop actions for a; it already had 2"},
        {[](tovrin_conn *conn) { tovrin_conn_run_tests(-1, 0, conn); },
         &tovrin_conn::n_queued_test_actions, "queueing test actions for a; it already had 2"},
    };
    tovrin_conn *a = load(
        "conn a\n\tstart true\n\tstart false\n\tstop true\n\tstop false\n"
        "\ttest true\n\ttest false\n");
    ASSERT_NE(a, nullptr);
    for (const counted_case &c : cases) {
        log.clear();
        a->*c.counter = 2;
        c.queue(a);
        EXPECT_EQ(a->*c.counter, 4) << c.warning;
        EXPECT_EQ(log.records(), (std::vector<log_record>{{TOVRIN_LOG_WARN, c.warning}}));
        EXPECT_EQ(a->queued_actions.size(), 2u) << c.warning;
        tovrin_conn_actions_release(a);
    }
}

TEST_F(ActionQueue, UnusableCommandsAreCountedButNotQueued) {
    tovrin_conn *a = load("conn a\n\tstart\n\tstart true\n");
    ASSERT_NE(a, nullptr);
    tovrin_conn_queue_start_actions(a);
    EXPECT_EQ(a->n_queued_start_actions, 2);
    ASSERT_EQ(a->queued_actions.size(), 1u);
    EXPECT_EQ(a->queued_actions.front()->command_name, "true");
    EXPECT_EQ(log.records(),
              (std::vector<log_record>{{TOVRIN_LOG_FATAL, "failed to queue command for conn a"}}));

    log.clear();
    tovrin_queue_action(nullptr, a->start_actions[1].get());
    tovrin_queue_action(a, nullptr);
    EXPECT_EQ(log.count(TOVRIN_LOG_FATAL, "tovrin_queue_action called with NULL arguments"), 2);
    EXPECT_EQ(a->queued_actions.size(), 1u);
}

TEST_F(ActionQueue, EachKindOfCommandGetsItsOwnTimeLimit) {
    struct limit_case {
        const char *settings;
        int type;
        int expected;
    };
    const limit_case cases[] = {
        {"\tcommandtimeout 0\n\ttesttimeout 5\n", TOVRIN_ACTION_START, 0},
        {"\tcommandtimeout 7\n\ttesttimeout 5\n", TOVRIN_ACTION_START, 7},
        {"\tcommandtimeout 7\n\ttesttimeout 5\n", TOVRIN_ACTION_STOP, 7},
        {"\tcommandtimeout 7\n\ttesttimeout 3\n", TOVRIN_ACTION_TEST, 3},
        {"\tcommandtimeout 7\n\ttesttimeout 0\n", TOVRIN_ACTION_TEST, 0},
    };
    const char *keywords[] = {"start", "stop", "test"};
    for (const limit_case &c : cases) {
        tovrin_conn *a =
            load(std::string("conn a\n") + c.settings + "\t" + keywords[c.type] + " sleep 30\n");
        ASSERT_NE(a, nullptr);
        tovrin_action_list *lists[] = {&a->start_actions, &a->stop_actions, &a->test_actions};
        tovrin_queue_action(a, (*lists[c.type])[0].get());
        tovrin_conn_run_queue(a);
        tovrin_queued_action *entry = a->queued_actions.front().get();
        ASSERT_EQ(entry->state, TOVRIN_QA_RUNNING) << c.settings;
        EXPECT_EQ(entry->timeout, c.expected) << c.settings << keywords[c.type];
        double left = seconds_left(entry->action_timeout_event);
        if (c.expected == 0) {
            EXPECT_EQ(left, -1) << "no limit, no timer: " << c.settings;
        } else {
            EXPECT_GT(left, c.expected - 1.0) << c.settings << keywords[c.type];
            EXPECT_LE(left, c.expected + 0.1) << c.settings << keywords[c.type];
        }
        EXPECT_FALSE(entry->action_timeout_kill_event.pending());
        tovrin_conn_actions_release(a);
        t.inst.conns.clear();
    }
}

TEST_F(ActionQueue, ASleeperIsTerminatedAtItsLimit) {
    tovrin_conn *a = load("conn a\n\tcommandtimeout 1\n\tlog +commanddebug\n\tstart sleep 30\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_STARTING;
    tovrin_conn_queue_start_actions(a);
    tovrin_conn_run_queue(a);
    pid_t pid = a->queued_actions.front()->pid;
    auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(wait_for([&] { return a->queued_actions.empty(); }));
    auto took = std::chrono::steady_clock::now() - started;
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, seconds(5));

    EXPECT_TRUE(log.contains(TOVRIN_LOG_WARN, "warning: timeout for action sleep on conn a"));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "a sigchild event for action pid " +
                                                  std::to_string(pid) + " with return code 143"));
    EXPECT_FALSE(
        log.contains(TOVRIN_LOG_WARN, "warning: action sleep on conn a not stopping - killing"));
    // Ended by its limit, not failed: no failure message even with startfail.
    for (const log_record &record : log.records())
        EXPECT_EQ(record.message.find("command failed"), std::string::npos) << record;
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_CHECK_START});
}

TEST_F(ActionQueue, ClearingEndsTheRunningHeadAndDropsTheRest) {
    tovrin_conn *a = load(
        "conn a\n\tcommandtimeout 0\n\tstart sleep 30\n\tstart true\n"
        "\tstart false\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_STOPPING_UP_COMMANDS;
    tovrin_conn_queue_start_actions(a);
    a->n_queued_stop_actions = 1;
    tovrin_conn_run_queue(a);
    tovrin_queued_action *head = a->queued_actions.front().get();

    log.clear();
    tovrin_conn_clear_actions(a);
    const std::vector<log_record> expected = {
        {TOVRIN_LOG_INFO, "schedule kill for action sleep on conn a"},
        {TOVRIN_LOG_WARN, "warning: timeout for action sleep on conn a"},
        {TOVRIN_LOG_INFO, "remove action true on conn a"},
        {TOVRIN_LOG_INFO, "remove action false on conn a"},
        {TOVRIN_LOG_INFO, "a had 3 queued start actions; clearing them"},
        {TOVRIN_LOG_INFO, "a had 1 queued stop actions; clearing them"},
    };
    EXPECT_EQ(log.records(), expected);
    EXPECT_EQ(a->n_queued_start_actions, 0);
    EXPECT_EQ(a->n_queued_stop_actions, 0);
    EXPECT_EQ(a->n_queued_test_actions, 0);
    ASSERT_EQ(a->queued_actions.size(), 1u);
    EXPECT_EQ(head->state, TOVRIN_QA_TERMINATING);
    double kill_in = seconds_left(head->action_timeout_kill_event);
    EXPECT_GT(kill_in, 9.0);
    EXPECT_LE(kill_in, 10.1);

    // A second end while the kill is pending does not re-arm it.
    log.clear();
    tovrin_conn_action_timeout(head);
    EXPECT_TRUE(log.contains(TOVRIN_LOG_FATAL,
                             "1201 sleep(0) action_timeout_kill_event already scheduled"));
    EXPECT_EQ(log.count(TOVRIN_LOG_WARN, "warning: timeout for action sleep on conn a"), 1);

    ASSERT_TRUE(wait_for([&] { return a->queued_actions.empty(); }));
    EXPECT_EQ(a->n_queued_start_actions, -1);
    // Stopping up commands hears about every end.
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_CHECK_STOP});
}

TEST_F(ActionQueue, UpActionsQueueOnceAndStartAtOnce) {
    tovrin_conn *a = load("conn a\n\tlog +commanddebug\n\tup sleep 100000\n\tup sleep 200000\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_STARTING_UP_COMMANDS;
    tovrin_conn_queue_up_actions(a);
    ASSERT_EQ(a->queued_up_actions.size(), 2u);
    pid_t first = a->queued_up_actions.front()->pid;
    pid_t second = a->queued_up_actions.back()->pid;
    EXPECT_GT(first, 0);
    EXPECT_GT(second, 0);
    EXPECT_NE(first, second);
    for (const auto &entry : a->queued_up_actions) {
        EXPECT_EQ(entry->state, TOVRIN_QA_RUNNING);
        EXPECT_EQ(entry->timeout, 0);
        EXPECT_FALSE(entry->action_timeout_event.pending());
    }
    const std::vector<log_record> started = {
        {TOVRIN_LOG_INFO, "running command sleep for conn a"},
        {TOVRIN_LOG_INFO, "     ** parameter 1 is: sleep"},
        {TOVRIN_LOG_INFO, "     ** parameter 2 is: 100000"},
        {TOVRIN_LOG_INFO, "running command sleep for conn a"},
        {TOVRIN_LOG_INFO, "     ** parameter 1 is: sleep"},
        {TOVRIN_LOG_INFO, "     ** parameter 2 is: 200000"},
    };
    EXPECT_EQ(log.records(), started);

    log.clear();
    tovrin_conn_queue_up_actions(a);
    const std::vector<log_record> skipped = {
        {TOVRIN_LOG_INFO, "a: up action \"sleep 1000...\" already queued, not requeuing"},
        {TOVRIN_LOG_INFO, "a: up action \"sleep 2000...\" already queued, not requeuing"},
    };
    EXPECT_EQ(log.records(), skipped);
    EXPECT_EQ(a->queued_up_actions.size(), 2u);
    EXPECT_EQ(a->queued_up_actions.front()->pid, first);

    // Without commanddebug the skip is silent.
    a->log_mask = 0;
    log.clear();
    tovrin_conn_queue_up_actions(a);
    EXPECT_TRUE(log.records().empty());

    // Stopping them ends each one with SIGTERM, without the time-out warning,
    // and the last exit tells the conn.
    a->current_state = TOVRIN_STATE_STOPPING_UP_COMMANDS;
    tovrin_conn_stop_up_actions(a);
    EXPECT_EQ(a->queued_up_actions.size(), 2u);
    for (const auto &entry : a->queued_up_actions)
        EXPECT_EQ(entry->state, TOVRIN_QA_TERMINATING);
    EXPECT_TRUE(log.records().empty());
    ASSERT_TRUE(wait_for([&] { return a->queued_up_actions.empty(); }));
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_CHECK_STOP});
}

TEST_F(ActionQueue, ACommandNotOnThePathStaysIdle) {
    tovrin_conn *a = load("conn a\n\tstart no-such-command-tovrin\n\tup no-such-command-tovrin\n");
    ASSERT_NE(a, nullptr);
    int fds = open_fd_count();
    tovrin_conn_queue_start_actions(a);
    tovrin_conn_run_queue(a);
    tovrin_queued_action *head = a->queued_actions.front().get();
    EXPECT_EQ(head->state, TOVRIN_QA_IDLE);
    EXPECT_EQ(head->pid, 0);
    EXPECT_FALSE(head->stdout_fd.valid());
    EXPECT_FALSE(head->stdout_event.pending());
    EXPECT_EQ(log.records(),
              (std::vector<log_record>{
                  {TOVRIN_LOG_FATAL, "could not run command no-such-command-tovrin for conn a"}}));

    // Starting the queue again tries again.
    log.clear();
    tovrin_conn_run_queue(a);
    EXPECT_EQ(log.records().size(), 1u);
    EXPECT_EQ(open_fd_count(), fds);

    // An up command that could not start is dropped when the up commands
    // stop, so the conn is not left waiting for an exit that never comes.
    a->current_state = TOVRIN_STATE_STARTING_UP_COMMANDS;
    tovrin_conn_queue_up_actions(a);
    ASSERT_EQ(a->queued_up_actions.size(), 1u);
    EXPECT_EQ(a->queued_up_actions.front()->pid, 0);
    a->current_state = TOVRIN_STATE_STOPPING_UP_COMMANDS;
    tovrin_conn_stop_up_actions(a);
    EXPECT_TRUE(a->queued_up_actions.empty());
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_CHECK_STOP});
    EXPECT_TRUE(t.inst.running_actions.empty());
}

TEST_F(ActionQueue, TestTimerDiagnosticsNameTheirSite) {
    tovrin_conn *a = load("conn a\n\ttest true\n");
    ASSERT_NE(a, nullptr);
    tovrin_conn_schedule_tests(a, 30);
    EXPECT_TRUE(log.records().empty());
    double left = seconds_left(a->test_event);
    EXPECT_GT(left, 29.0);
    EXPECT_LE(left, 30.1);

    tovrin_conn_schedule_tests(a, 5);
    EXPECT_EQ(
        log.records(),
        (std::vector<log_record>{{TOVRIN_LOG_FATAL, "1101 a(0) test_event already scheduled"}}));
    EXPECT_GT(seconds_left(a->test_event), 29.0) << "the pending timer is left alone";
    tovrin_conn_cancel_tests(a);
    EXPECT_FALSE(a->test_event.pending());

    // A conn that never came into force has a test timer that was never set.
    std::unique_ptr<tovrin_conn> loose =
        tovrin_conn_new(&t.inst, "x", TOVRIN_ORDEREDGROUP, 60, 30, 30, 30, 1, -1, 0);
    ASSERT_NE(loose, nullptr);
    log.clear();
    tovrin_conn_cancel_tests(loose.get());
    tovrin_conn_schedule_tests(loose.get(), 5);
    const std::vector<log_record> expected = {
        {TOVRIN_LOG_WARN, "1121 x(2) test_event not initialized yet, skip deleting it"},
        {TOVRIN_LOG_WARN, "1104 x(2) test_event not initialized yet, set and add it"},
    };
    EXPECT_EQ(log.records(), expected);
    EXPECT_TRUE(loose->test_event.pending());
}

TEST_F(ActionQueue, TestsRunNowOrWhenTheTimerFires) {
    tovrin_conn *a = load("conn a\n\ttestperiod 30\n\ttest true\n\ttest true\n");
    ASSERT_NE(a, nullptr);
    t.inst.globals->instance_log_mask |= TOVRIN_INST_LOG_DEBUGGENERAL;
    a->current_state = TOVRIN_STATE_UP;
    a->current_test_run_has_failure = 1;
    tovrin_conn_schedule_tests(a, 0);
    EXPECT_TRUE(log.contains(TOVRIN_LOG_INFO, "DEBUG -- queueing tests for a"));
    EXPECT_EQ(a->current_test_run_has_failure, 0);
    EXPECT_EQ(a->n_queued_test_actions, 2);
    ASSERT_EQ(a->queued_actions.size(), 2u);
    EXPECT_EQ(a->queued_actions.front()->state, TOVRIN_QA_RUNNING);
    ASSERT_TRUE(wait_for([&] { return a->n_queued_test_actions == 0; }));
    EXPECT_TRUE(a->test_event.pending()) << "the verdict arms the next run";

    // The timer's callback is the run itself.
    a->test_event.activate();
    ASSERT_TRUE(wait_for([&] { return a->n_test_passes == 2; }));
    EXPECT_EQ(a->n_queued_test_actions, 0);
    EXPECT_EQ(log.count(TOVRIN_LOG_INFO, "DEBUG -- queueing tests for a"), 2);
}

TEST_F(ActionQueue, CommandLineKeepsTheArgumentsThatFit) {
    struct line_case {
        std::vector<std::string> argv;
        std::string expected;
    };
    const std::string a400(400, 'a'), b400(400, 'b'), c400(400, 'c');
    const line_case cases[] = {
        {{}, ""},
        {{"sh", "-c", "exit 3"}, " sh -c exit 3"},
        {{"x", "", "y"}, " x  y"},
        {{std::string(1022, 'x')}, " " + std::string(1022, 'x')},
        {{std::string(1023, 'x')}, ""},
        {{"cmd", a400, b400, c400}, " cmd " + a400 + " " + b400},
        // The first argument that does not fit ends the line.
        {{std::string(1000, 'x'), std::string(100, 'y'), "z"}, " " + std::string(1000, 'x')},
    };
    for (const line_case &c : cases) {
        std::string line = tovrin_action_command_line(c.argv);
        EXPECT_EQ(line, c.expected);
        EXPECT_LE(line.size(), 1023u);
    }
}

TEST_F(ActionQueue, ALongExpandedCommandIsShownWithTheArgumentsThatFit) {
    const std::string p(400, 'p'), q(400, 'q'), r(400, 'r');
    tovrin_conn *a = load("conn a\n\tlog +startfail\n\tvar p " + p + "\n\tvar q " + q +
                          "\n\tvar r " + r + "\n\tstart sh -c exit\\ 3 %p% %q% %r%\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_STARTING;
    tovrin_conn_queue_start_actions(a);
    ASSERT_EQ(a->queued_actions.size(), 1u);
    ASSERT_EQ(a->queued_actions.front()->argv.size(), 6u);
    tovrin_conn_run_queue(a);
    ASSERT_TRUE(wait_for([&] { return a->queued_actions.empty(); }));
    EXPECT_TRUE(log.contains(TOVRIN_LOG_ERROR,
                             "start command failed for conn a : sh -c exit 3 " + p + " " + q));
}

TEST_F(ActionQueue, OutputIsDrainedAndEndOfFileStopsTheReadEvents) {
    tovrin_conn *a = load(
        "conn a\n"
        "\tup sh -c 'printf \"ab\\0cd\"; exec >&- 2>&-; sleep 30'\n"
        "\tup sh -c 'yes | head -c 1000000; yes | head -c 100000 >&2; exec >&- 2>&-; sleep 30'\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_UP;
    tovrin_conn_queue_up_actions(a);
    ASSERT_EQ(a->queued_up_actions.size(), 2u);
    tovrin_queued_action *nul = a->queued_up_actions.front().get();
    tovrin_queued_action *chatty = a->queued_up_actions.back().get();
    auto at_eof = [](tovrin_queued_action *entry) {
        return !entry->stdout_fd.valid() && !entry->stderr_fd.valid();
    };
    ASSERT_TRUE(wait_for([&] { return at_eof(nul) && at_eof(chatty); }));
    for (tovrin_queued_action *entry : {nul, chatty}) {
        EXPECT_FALSE(entry->stdout_event.pending());
        EXPECT_FALSE(entry->stderr_event.pending());
        EXPECT_EQ(entry->state, TOVRIN_QA_RUNNING) << "the children still run";
    }
    EXPECT_EQ(nul->output, "ab") << "each read is kept up to its first NUL";
    EXPECT_EQ(chatty->output.size(), TOVRIN_ACTION_OUTPUT_MAX);
    EXPECT_EQ(chatty->output.substr(0, 4), "y\ny\n");
}

TEST_F(ActionQueue, AGrandchildHoldingThePipesBlocksNothing) {
    tovrin_conn *a = load("conn a\n\tstart sh -c 'sleep 30 & exit 0'\n");
    ASSERT_NE(a, nullptr);
    int fds = open_fd_count();
    a->current_state = TOVRIN_STATE_STARTING;
    tovrin_conn_queue_start_actions(a);
    tovrin_conn_run_queue(a);
    pid_t group = a->queued_actions.front()->pid;
    EXPECT_TRUE(wait_for([&] { return a->queued_actions.empty(); }, seconds(5)));
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_CHECK_START});
    EXPECT_EQ(open_fd_count(), fds);
    killpg(group, SIGKILL);
}

TEST_F(ActionQueue, MegabytesOfOutputAreReapedAndFreed) {
    tovrin_conn *a = load(
        "conn a\n\tcommandtimeout 0\n"
        "\tstart sh -c 'yes | head -c 5000000; yes | head -c 2000000 >&2'\n");
    ASSERT_NE(a, nullptr);
    int fds = open_fd_count();
    a->current_state = TOVRIN_STATE_STARTING;
    tovrin_conn_queue_start_actions(a);
    tovrin_conn_run_queue(a);
    ASSERT_TRUE(wait_for([&] { return a->queued_actions.empty(); }, seconds(20)));
    EXPECT_EQ(a->n_queued_start_actions, 0);
    EXPECT_TRUE(t.inst.running_actions.empty());
    EXPECT_EQ(open_fd_count(), fds);
}

TEST_F(ActionQueue, AThousandShortCommandsLeakNoDescriptor) {
    tovrin_conn *a = load("conn a\n\tstart true\n");
    ASSERT_NE(a, nullptr);
    int fds = open_fd_count();
    a->current_state = TOVRIN_STATE_STARTING;
    for (int i = 0; i < 1000; i++)
        tovrin_queue_action(a, a->start_actions[0].get());
    a->n_queued_start_actions = 1000;
    tovrin_conn_run_queue(a);
    ASSERT_TRUE(wait_for([&] { return a->queued_actions.empty(); }, seconds(50)));
    EXPECT_EQ(a->n_queued_start_actions, 0);
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_CHECK_START});
    EXPECT_TRUE(t.inst.running_actions.empty());
    EXPECT_EQ(open_fd_count(), fds);
}

TEST_F(ActionQueue, ReleasedConnIsNeverReachedAgain) {
    tovrin_conn *a = load(
        "conn a\n\ttestperiod 1\n\tstart sleep 30\n\tstart sleep 31\n"
        "\tup sleep 32\n\tup sh -c 'trap \"exit 0\" TERM; sleep 30 & wait'\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_UP;
    tovrin_conn_queue_start_actions(a);
    tovrin_conn_run_queue(a);
    tovrin_conn_queue_up_actions(a);
    std::vector<pid_t> pids;
    for (const auto &[pid, entry] : t.inst.running_actions)
        pids.push_back(pid);
    ASSERT_EQ(pids.size(), 3u);
    // Timers of the conn that would fire while its children are reaped.
    a->up_action_failed_delay_event.set<tovrin_up_action_failed_delay>(base(), -1, 0, a);
    a->up_action_failed_delay_event.add_seconds(0);
    tovrin_conn_schedule_tests(a, 1);

    tovrin_conn_actions_release(a);
    EXPECT_TRUE(a->queued_actions.empty());
    EXPECT_TRUE(a->queued_up_actions.empty());
    EXPECT_TRUE(t.inst.running_actions.empty());
    t.inst.conns.unlink(a).reset();

    // SIGTERM reached every group; the exits are reaped and ignored.
    ASSERT_TRUE(wait_for(
        [&] {
            for (pid_t pid : pids) {
                if (!process_gone(pid))
                    return false;
            }
            return true;
        },
        seconds(5)));
    EXPECT_TRUE(t.inst.message_queue.empty());
}

// A child that ignores SIGTERM gets SIGKILL ten seconds after it; this one
// test waits that out.
TEST_F(ActionQueue, ATermIgnoringChildIsKilledTenSecondsLater) {
    tovrin_conn *a = load(
        "conn a\n\tcommandtimeout 1\n\tlog +commanddebug\n"
        "\tstart sh -c 'trap \"\" TERM; sleep 30'\n");
    ASSERT_NE(a, nullptr);
    a->current_state = TOVRIN_STATE_STARTING;
    tovrin_conn_queue_start_actions(a);
    tovrin_conn_run_queue(a);
    tovrin_queued_action *head = a->queued_actions.front().get();
    pid_t pid = head->pid;
    auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(wait_for([&] { return head->state == TOVRIN_QA_TERMINATING; }, seconds(5)));
    EXPECT_TRUE(head->action_timeout_kill_event.pending());
    ASSERT_TRUE(wait_for([&] { return a->queued_actions.empty(); }, seconds(20)));
    auto took = std::chrono::steady_clock::now() - started;
    EXPECT_GE(took, seconds(10));
    EXPECT_LT(took, seconds(14));

    const std::vector<log_record> expected = {
        {TOVRIN_LOG_WARN, "warning: timeout for action sh on conn a"},
        {TOVRIN_LOG_WARN, "warning: action sh on conn a not stopping - killing"},
        {TOVRIN_LOG_INFO,
         "a sigchild event for action pid " + std::to_string(pid) + " with return code 137"},
    };
    std::vector<log_record> seen;
    for (const log_record &record : log.records()) {
        if (record.message.find("parameter") == std::string::npos &&
            record.message.find("running command") == std::string::npos)
            seen.push_back(record);
    }
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(take_messages(a), std::vector<int>{TOVRIN_MSG_CHECK_START});
}

}  // namespace
