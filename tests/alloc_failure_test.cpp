// Every operation below is run once for each of its allocations, with that
// one allocation failing: the daemon must log the failure with its own
// message, leave nothing half made, keep running and never leak (the
// sanitizer build checks that). Each case also names outcomes that some
// failure must produce, so a failure path that is never taken shows.

#include <functional>
#include <set>

#include "stord/frame.h"
#include "store/status.h"
#include "support/test_inst.h"

using outcome = strings;

struct sweep_case {
    const char *config;  // loaded before the operation
    // Sets the stage, runs the operation (alone in the sweep), and reports
    // what it left behind.
    std::function<void(test_inst &)> prepare, act;
    std::function<outcome(test_inst &)> observe;
    outcome success;                // without a failure
    std::vector<outcome> must_see;  // outcomes some failure must give
    // An outcome that names no particular cause, and how many of the
    // failures may give it: only the allocations no message covers.
    outcome unnamed = {};
    size_t max_unnamed = 0;
    // How many failures may change the outcome unsaid: only those the
    // daemon drops quietly.
    size_t max_silent = 0;
};

const char long_value[] = "a value longer than any short string";

// Notification text writes the record separator as '|'.
std::string rs(std::string text) {
    std::replace(text.begin(), text.end(), '|', '\036');
    return text;
}
const char long_names[] =
    "orderedgroup a-group-with-a-long-name\n\tmember a-conn-with-a-long-name\n"
    "conn a-conn-with-a-long-name\n\tparent a-parent-with-a-long-name\n"
    "\tchild a-child-with-a-long-name\n\tstart /bin/a-start-command-with-a-long-name\n"
    "\tfile-dependency /a/file/dependency/with/a/long/name\n"
    "\tvar a-variable-with-a-long-name a-value-as-long-as-that\n"
    "conn a-parent-with-a-long-name\n";

// What the load of long_names left in a-conn-with-a-long-name and its group.
outcome loaded(test_inst &t) {
    tovrin_conn *a = t.conn("a-conn-with-a-long-name");
    tovrin_conn *g = t.conn("a-group-with-a-long-name");
    if (a == nullptr || g == nullptr)
        return {"not loaded"};
    const tovrin_action_list *starts = tovrin_conn_actions(a, TOVRIN_ACTION_START);
    return {"members " + std::to_string(g->group_part->members.size()),
            "actions " + std::to_string(starts != nullptr ? starts->size() : 0),
            "parents " + std::to_string(a->parents.size()),
            "children " + std::to_string(a->children.size()),
            "deps " + std::to_string(a->var_part != nullptr ? a->var_part->file_deps.size() : 0)};
}

// What a failover says of the group's timers that were never armed.
const char failover_not_armed[] =
    "1469 a-group-with-a-long-name(2) failover_event not initialized yet, skip deleting it";
const char failforward_not_armed[] =
    "1495 a-group-with-a-long-name(2) failforward_event not initialized yet, skip deleting it";

// The record that failed, then what the load then says.
outcome load_failed(strings why) {
    why.insert(why.end(), {"Failed To Load Config", "not loaded"});
    return why;
}

const sweep_case cases[] = {
    // Publishing a status: the prefix fails; the key fails, silently; the
    // frame fails.
    {"conn a-conn-with-a-long-name\n\tlog othertransitions\n",
     [](test_inst &) {},
     [](test_inst &t) { tovrin_publish_status(t.inst.conns.front()); },
     [](test_inst &t) {
         return outcome{"frames " + std::to_string(t.inst.store_out_queue.size())};
     },
     {"a-conn-with-a-long-name is now down", "frames 1"},
     {{"failed to allocate status message", "frames 0"},
      {"a-conn-with-a-long-name is now down", "frames 0"},
      {"could not allocate message", "a-conn-with-a-long-name is now down", "frames 0"}},
     {},
     0,
     2},
    // Loading: a command, link, file dependency or conn only named (the
    // child) that cannot be stored is dropped and the load goes on; a record
    // or variable that cannot be made fails the load, each with its own
    // message. Only the two line buffers and the room the hand-over makes
    // for the conns have none.
    {"",
     [](test_inst &t) { t.write_config(long_names); },
     [](test_inst &t) { t.load(); },
     loaded,
     {"members 1", "actions 1", "parents 1", "children 1", "deps 1"},
     {{"Could not allocate action", "Couldn't create action", "members 1", "actions 0", "parents 1",
       "children 1", "deps 1"},
      {"Could not allocate link name", "Could not allocate member", "members 0", "actions 1",
       "parents 1", "children 1", "deps 1"},
      {"Could not allocate link name", "Could not allocate parent", "members 1", "actions 1",
       "parents 0", "children 1", "deps 1"},
      {"Could not allocate link name", "Could not allocate child", "members 1", "actions 1",
       "parents 1", "children 0", "deps 1"},
      {"Could not allocate link name", "Could not allocate file dependency", "members 1",
       "actions 1", "parents 1", "children 1", "deps 0"},
      {"Could not allocate conn", "Could not add conn", "Could not add deaf conn", "members 1",
       "actions 1", "parents 1", "children 1", "deps 1"},
      load_failed({"Could not allocate variable",
                   "Could not set variable a-variable-with-a-long-name in connection "
                   "a-conn-with-a-long-name"}),
      load_failed({"Could not allocate conn", "Could not add conn", "Could not add group"}),
      load_failed({"Could not add conn", "Could not add group"}),
      load_failed({"Could not allocate conn", "Could not add conn"}),
      load_failed({"Could not allocate tovrin globals"})},
     load_failed({"Failed to allocate memory to parse config"}),
     3},
    // Store values: a notification cut short, here in the field holding its
    // type, leaves the reader ready for the next frame; a value reaches
    // every variable that follows its key, or is dropped from one.
    {"conn a\n\tstord_var v k\nconn b\n\tstord_var w k\n",
     [](test_inst &t) {
         std::string bytes = stord_frame_encode(rs("0000000000000000008|k|0|0|first")) +
                             stord_frame_encode(rs("8|k|0|0|") + long_value);
         ASSERT_EQ(write(t.store_end.get(), bytes.data(), bytes.size()), ssize_t(bytes.size()));
     },
     [](test_inst &t) {
         for (int turn = 0; turn < 8; turn++)
             event_base_loop(t.inst.base.get(), EVLOOP_NONBLOCK);
     },
     [](test_inst &t) {
         size_t with_value = 0;
         for (const tovrin_var_sub &sub : t.inst.store_vars)
             with_value += sub.current_val == long_value ? 1 : 0;
         return outcome{"values " + std::to_string(with_value),
                        "reader " + std::to_string(t.inst.store_rx_state)};
     },
     {"values 2", "reader 0"},
     {{"error handling stord message", "values 2", "reader 0"},
      {"error handling stord message", "values 1", "reader 0"}}},
    // A failover run through: a group key that cannot be built is dropped
    // and the group goes on, never left stopping with its failover half
    // done; a handler cut short leaves no message waiting behind it.
    {"orderedgroup a-group-with-a-long-name\n\tmember a-member-with-a-long-name\n"
     "\tmember b-member-with-a-long-name\n\tfailovertimeout 0\n\tlog none\n"
     "conn a-member-with-a-long-name\n\tlog none\nconn b-member-with-a-long-name\n\tlog none\n",
     [](test_inst &t) {
         for (tovrin_conn &conn : t.inst.conns)
             t.deliver(conn.name, TOVRIN_MSG_START);
         t.dispatch();
         t.inst.store_out_queue.clear();
     },
     [](test_inst &t) {
         tovrin_conn *a = t.inst.conns.find("a-member-with-a-long-name");
         tovrin_conn_deliver_message(&t.inst, nullptr, a, TOVRIN_MSG_RESTART);
         t.dispatch();
     },
     [](test_inst &t) {
         tovrin_conn *g = t.conn("a-group-with-a-long-name");
         bool stopping = g->current_state == TOVRIN_STATE_STOPPING ||
                         g->current_state == TOVRIN_STATE_WAITING_TO_START ||
                         g->current_state == TOVRIN_STATE_DOWN;
         EXPECT_FALSE(g->group_part->currently_failing_over && stopping)
             << "a failover left half done";
         EXPECT_TRUE(t.inst.message_queue.empty()) << "messages left for a later delivery";
         return outcome{std::string("state ") + tovrin_state_name(g->current_state),
                        "active " + g->group_part->active_conn_name};
     },
     {failover_not_armed, failforward_not_armed, failover_not_armed,
      "1537 a-group-with-a-long-name(2) failforward_event not initialized yet, set and add it",
      failover_not_armed, "state up", "active b-member-with-a-long-name"},
     {{failover_not_armed, failforward_not_armed, failover_not_armed,
       "1537 a-group-with-a-long-name(2) failforward_event not initialized yet, set and add it",
       "could not allocate message", failover_not_armed, "state up",
       "active b-member-with-a-long-name"}}},
    // A group started from the loop beside a plain conn: whatever no handler
    // reports itself is caught where the message began, and the messages
    // queued behind it are still handled.
    {"orderedgroup g\n\tmember a-member-with-a-long-name\n\tfailovertimeout 0\n\tlog none\n"
     "conn a-member-with-a-long-name\n\tstart /bin/a-command with %v% args\n\tlog none\n"
     "conn b\n\tup /bin/an-up-command\n\tlog none\n",
     [](test_inst &t) {
         t.inst.spawn = [](const char *, char *const *, int *, int *) -> pid_t { return -1; };
     },
     [](test_inst &t) {
         t.deliver("g", TOVRIN_MSG_START);
         t.deliver("b", TOVRIN_MSG_START);
         t.dispatch();
     },
     [](test_inst &t) {
         EXPECT_TRUE(t.inst.message_queue.empty()) << "messages left for a later delivery";
         return outcome{std::string("state ") + tovrin_state_name(t.conn("g")->current_state),
                        std::string("b ") + tovrin_state_name(t.conn("b")->current_state)};
     },
     {"could not run command /bin/an-up-command for conn b",
      "could not run command /bin/a-command for conn a-member-with-a-long-name",
      "state starting members", "b up"},
     {{"Could not allocate memory; event handling abandoned",
       "could not run command /bin/an-up-command for conn b", "state starting members", "b up"},
      {"could not allocate queued action",
       "could not run command /bin/a-command for conn a-member-with-a-long-name",
       "state starting members", "b up"}}},
};

TEST(AllocationSweep, EveryOperationSurvivesAnySingleFailure) {
    for (const sweep_case &c : cases) {
        SCOPED_TRACE(c.config);
        std::set<outcome> seen;
        size_t unnamed = 0, silent = 0;
        for (long k = 0;; k++) {
            ASSERT_LT(k, 100000);
            SCOPED_TRACE(k);
            test_inst t(c.config);
            t.inst.store_out_queue.clear();
            c.prepare(t);
            log_capture log;
            allocation_fail_after(k);
            try {
                c.act(t);
            } catch (const std::bad_alloc &) {
                ADD_FAILURE() << "the failure escaped";
            }
            bool failed = allocation_failure_happened();
            outcome got = log.messages();
            outcome left = c.observe(t);
            got.insert(got.end(), left.begin(), left.end());
            if (!failed) {
                EXPECT_EQ(got, c.success);
                break;
            }
            // What a failure adds to the log is a failure's report.
            bool said = false;
            for (const log_record &r : log.records) {
                bool normal = std::count(c.success.begin(), c.success.end(), r.message) != 0;
                EXPECT_TRUE(normal || r.priority == TOVRIN_LOG_FATAL) << r;
                said |= !normal;
            }
            silent += said || got == c.success ? 0 : 1;
            seen.insert(got);
            unnamed += got == c.unnamed ? 1 : 0;
        }
        for (const outcome &o : c.must_see)
            EXPECT_EQ(seen.count(o), 1u) << testing::PrintToString(o);
        EXPECT_LE(unnamed, c.max_unnamed);
        EXPECT_LE(silent, c.max_silent);
    }
}
