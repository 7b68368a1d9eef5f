#include "supervise/action.h"

#include "support/test_inst.h"

// The command line in messages keeps the arguments that fit in 1,023
// bytes, each after one blank, and stops at the first that does not.
TEST(Action, CommandLineKeepsTheArgumentsThatFit) {
    const std::string a400(400, 'a'), b400(400, 'b'), x1022(1022, 'x');
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, ""},
        {{"x", "", "y"}, " x  y"},
        {{x1022}, " " + x1022},
        {{x1022 + "x"}, ""},
        {{"cmd", a400, b400, a400}, " cmd " + a400 + " " + b400},
    };
    for (const auto &[argv, line] : cases)
        EXPECT_EQ(tovrin_action_command_line(argv), line);
}

// Turns t's loop until done() holds; false when ten seconds pass first.
static bool loop_until(test_inst &t, const std::function<bool()> &done) {
    auto deadline = std::chrono::steady_clock::now() + scaled(E2E_WAIT);
    const timeval tick{0, 20000};
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        t.dispatch();
        event_base_loopexit(t.inst.base.get(), &tick);
        event_base_loop(t.inst.base.get(), 0);
    }
    return true;
}

// Real children (one of them named by a single letter): output is drained
// as it comes (kept up to each read's first NUL, at most 64 KiB), end of
// file stops the reading while the child lives on, a grandchild holding the
// pipes holds nothing up, and nothing is left open once the children are
// gone.
TEST(Action, RealChildrenAreDrainedReapedAndForgotten) {
    test_inst t;
    t.write_config(
        "conn a\n\tlog none\n\tstart [ a = a ]\n\tstart sh -c 'sleep 3 & exit 0'\n"
        "\tup sh -c 'printf \"ab\\0cd\"; exec >&- 2>&-; sleep 30'\n"
        "\tup sh -c 'yes | head -c 1000000; yes | head -c 100000 >&2; exec >&- 2>&-; sleep 30'\n");
    ASSERT_EQ(t.load(), 0);
    const int fds = open_fd_count(getpid());
    tovrin_conn *a = t.conn("a");
    t.deliver("a", TOVRIN_MSG_START);
    ASSERT_TRUE(loop_until(t, [&] { return a->command_part->queued_up_actions.size() == 2; }));
    const tovrin_queued_action &nul = *a->command_part->queued_up_actions.front();
    const tovrin_queued_action &chatty = *a->command_part->queued_up_actions.back();
    ASSERT_TRUE(loop_until(t, [&] {
        return !nul.stdout_fd.valid() && !nul.stderr_fd.valid() && !chatty.stdout_fd.valid() &&
               !chatty.stderr_fd.valid();
    }));
    EXPECT_EQ(nul.output, "ab");
    EXPECT_EQ(chatty.output.size(), 64u * 1024);
    EXPECT_EQ(a->current_state, TOVRIN_STATE_UP);
    t.deliver("a", TOVRIN_MSG_STOP);
    ASSERT_TRUE(loop_until(t, [&] { return a->current_state == TOVRIN_STATE_DOWN; }));
    EXPECT_TRUE(t.inst.running_actions.empty());
    EXPECT_EQ(open_fd_count(getpid()), fds);
}

// A program name that is empty (a first word made only of a reference that
// finds nothing, or an empty pair of quotes) names a program that cannot be
// found: the child exits with 127 and the command has failed, as for a
// missing program, and the conn goes on.
TEST(Action, AnEmptyProgramNameFailsLikeAMissingProgram) {
    test_inst t;
    t.write_config(
        "conn a\n\tlog none\n\tlog +startfail\n\tstart %undefined% --x\n\tstart \"\"\n"
        "\tstart /nonexistent/program --y\n");
    ASSERT_EQ(t.load(), 0);
    log_capture log;
    t.deliver("a", TOVRIN_MSG_START);
    ASSERT_TRUE(loop_until(t, [&] { return t.conn("a")->current_state == TOVRIN_STATE_UP; }));
    EXPECT_EQ(log.records, (std::vector<log_record>{
                               {300, "start command failed for conn a :  --x"},
                               {300, "start command failed for conn a : "},
                               {300, "start command failed for conn a : /nonexistent/program --y"},
                           }));
}
