#include "supervise/action_queue.h"

#include <signal.h>

#include <algorithm>
#include <memory>
#include <new>

#include "command/tokenizer.h"
#include "daemon/log.h"
#include "daemon/log_mask.h"
#include "supervise/action.h"
#include "supervise/child_exit.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/message.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"

namespace {

// Numbers that identify the test timer diagnostics in the log.
enum {
    SITE_TESTS_ALREADY_SCHEDULED = 1101,
    SITE_TESTS_NOT_INITIALIZED = 1104,
    SITE_TESTS_CANCEL_NOT_INITIALIZED = 1121,
};

// An idle entry for action with its command tokenized on behalf of conn;
// null after logging when it cannot be allocated or yields no token.
std::unique_ptr<tovrin_queued_action> queued_action_new(tovrin_conn *conn, tovrin_action *action,
                                                        int timeout) {
    std::unique_ptr<tovrin_queued_action> entry;
    try {
        entry = std::make_unique<tovrin_queued_action>();
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "could not allocate queued action");
        return nullptr;
    }
    entry->conn = conn;
    entry->action = action;
    entry->type = action->type;
    entry->state = TOVRIN_QA_IDLE;
    entry->timeout = timeout;

    std::unique_ptr<parsed_argv> parsed = str2argv(conn, action->command.c_str());
    if (parsed == nullptr || parsed->argc < 1 || parsed->argv.empty()) {
        tovrin_log(TOVRIN_LOG_FATAL, "failed to queue command for conn %s", conn->name.c_str());
        return nullptr;
    }
    entry->argv = std::move(parsed->argv);
    try {
        entry->command_name = entry->argv.front();
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "could not allocate queued action");
        return nullptr;
    }
    return entry;
}

// Queues every action of one type and adds their number to *counter, those
// that could not be queued included.
void conn_queue_actions(tovrin_conn *conn, int type, int *counter) {
    const tovrin_action_list *actions = tovrin_conn_actions(conn, type);
    if (actions == nullptr)
        return;
    for (const auto &action : *actions)
        tovrin_queue_action(conn, action.get());
    *counter += static_cast<int>(actions->size());
}

// Ends the running head of queue (it goes when its exit is handled) and
// frees the idle entries.
void queue_clear(tovrin_conn *conn, tovrin_queued_action_list &queue) {
    for (auto it = queue.begin(); it != queue.end();) {
        tovrin_queued_action *entry = it->get();
        if (entry->pid != 0) {
            tovrin_log(TOVRIN_LOG_INFO, "schedule kill for action %s on conn %s",
                       entry->command_name.c_str(), conn->name.c_str());
            tovrin_conn_action_timeout(entry);
            ++it;
            continue;
        }
        tovrin_log(TOVRIN_LOG_INFO, "remove action %s on conn %s", entry->command_name.c_str(),
                   conn->name.c_str());
        std::unique_ptr<tovrin_queued_action> owned = std::move(*it);
        it = queue.erase(it);
        tovrin_action_free(std::move(owned));
    }
}

bool up_action_queued(const tovrin_command_part &part, const tovrin_action *action) {
    return std::any_of(part.queued_up_actions.begin(), part.queued_up_actions.end(),
                       [action](const auto &entry) { return entry->action == action; });
}

}  // namespace

void tovrin_queue_action(tovrin_conn *conn, tovrin_action *action) {
    if (conn == nullptr || action == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "tovrin_queue_action called with NULL arguments");
        return;
    }
    int timeout = 0;
    if (action->type == TOVRIN_ACTION_START || action->type == TOVRIN_ACTION_STOP)
        timeout = conn->commandtimeout;
    else if (action->type == TOVRIN_ACTION_TEST)
        timeout = conn->testtimeout;
    // The action is the conn's own, so the conn has its command part.
    std::unique_ptr<tovrin_queued_action> entry = queued_action_new(conn, action, timeout);
    if (entry == nullptr)
        return;
    try {
        conn->command_part->queued_actions.push_back(std::move(entry));
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "could not allocate queued action");
    }
}

void tovrin_conn_queue_start_actions(tovrin_conn *conn) {
    if (conn->n_queued_start_actions > 0) {
        tovrin_log(TOVRIN_LOG_WARN, "queueing start actions for %s; it already had %d",
                   conn->name.c_str(), conn->n_queued_start_actions);
    }
    conn_queue_actions(conn, TOVRIN_ACTION_START, &conn->n_queued_start_actions);
}

void tovrin_conn_queue_stop_actions(tovrin_conn *conn) {
    if (conn->n_queued_stop_actions > 0) {
        tovrin_log(TOVRIN_LOG_WARN, "queueing stop actions for %s; it already had %d",
                   conn->name.c_str(), conn->n_queued_stop_actions);
    }
    conn_queue_actions(conn, TOVRIN_ACTION_STOP, &conn->n_queued_stop_actions);
}

void tovrin_conn_run_tests(evutil_socket_t, short, void *arg) {
    auto *conn = static_cast<tovrin_conn *>(arg);
    if (conn == nullptr)
        return;
    const tovrin_globals *globals = conn->inst->globals.get();
    if (globals != nullptr && (globals->instance_log_mask & TOVRIN_INST_LOG_DEBUGGENERAL) != 0)
        tovrin_log(TOVRIN_LOG_INFO, "DEBUG -- queueing tests for %s", conn->name.c_str());
    if (conn->n_queued_test_actions > 0) {
        tovrin_log(TOVRIN_LOG_WARN, "queueing test actions for %s; it already had %d",
                   conn->name.c_str(), conn->n_queued_test_actions);
    }
    conn->current_test_run_has_failure = false;
    conn_queue_actions(conn, TOVRIN_ACTION_TEST, &conn->n_queued_test_actions);
    tovrin_conn_run_queue(conn);
}

void tovrin_conn_schedule_tests(tovrin_conn *conn, int delay) {
    if (conn == nullptr)
        return;
    if (delay == 0) {
        tovrin_conn_run_tests(-1, 0, conn);
        return;
    }
    // Tests run only for test commands, so the conn has its command part.
    timer_slot &test_event = conn->command_part->test_event;
    if (test_event.pending()) {
        tovrin_log(TOVRIN_LOG_FATAL, "%d %s(%d) test_event already scheduled",
                   SITE_TESTS_ALREADY_SCHEDULED, conn->name.c_str(), conn->type);
        return;
    }
    if (!test_event.initialized()) {
        tovrin_log(TOVRIN_LOG_WARN, "%d %s(%d) test_event not initialized yet, set and add it",
                   SITE_TESTS_NOT_INITIALIZED, conn->name.c_str(), conn->type);
    }
    test_event.set<tovrin_conn_run_tests>();
    // A negative delay is run on the next turn of the loop, not at once:
    // callers expect no tests to run inside the call unless they asked for 0.
    test_event.add_seconds(*conn->inst->clock, conn->inst->base.get(), conn, delay);
}

void tovrin_conn_cancel_tests(tovrin_conn *conn) {
    if (conn == nullptr)
        return;
    // Nothing to cancel for a conn without commands: it never tests.
    if (conn->command_part == nullptr)
        return;
    timer_slot &test_event = conn->command_part->test_event;
    if (!test_event.initialized()) {
        tovrin_log(TOVRIN_LOG_WARN, "%d %s(%d) test_event not initialized yet, skip deleting it",
                   SITE_TESTS_CANCEL_NOT_INITIALIZED, conn->name.c_str(), conn->type);
        return;
    }
    test_event.del();
}

void tovrin_conn_queue_up_actions(tovrin_conn *conn) {
    tovrin_command_part *part = conn->command_part.get();
    if (part == nullptr)
        return;
    for (const auto &owned : part->up_actions) {
        tovrin_action *action = owned.get();
        if (up_action_queued(*part, action)) {
            if ((conn->log_mask & TOVRIN_LOG_COMMANDDEBUG) != 0) {
                tovrin_log(TOVRIN_LOG_INFO,
                           "%s: up action \"%.10s...\" already queued, not requeuing",
                           conn->name.c_str(), action->command.c_str());
            }
            continue;
        }
        std::unique_ptr<tovrin_queued_action> entry = queued_action_new(conn, action, 0);
        if (entry == nullptr)
            continue;
        tovrin_queued_action *started = entry.get();
        try {
            part->queued_up_actions.push_back(std::move(entry));
        } catch (const std::bad_alloc &) {
            tovrin_log(TOVRIN_LOG_FATAL, "could not allocate queued action");
            continue;
        }
        tovrin_up_action_start(started);
    }
}

void tovrin_conn_stop_up_actions(tovrin_conn *conn) {
    if (conn->command_part == nullptr)
        return;
    auto &queue = conn->command_part->queued_up_actions;
    for (auto it = queue.begin(); it != queue.end();) {
        tovrin_queued_action *entry = (it++)->get();
        if (entry->pid != 0)
            tovrin_conn_action_timeout(entry);
    }
}

void tovrin_conn_drop_up_action(tovrin_conn *conn, tovrin_queued_action *entry) {
    if (conn->command_part == nullptr)
        return;
    auto &queue = conn->command_part->queued_up_actions;
    auto it = std::find_if(queue.begin(), queue.end(),
                           [entry](const auto &queued) { return queued.get() == entry; });
    if (it == queue.end())
        return;
    tovrin_action *action = entry->action;
    std::unique_ptr<tovrin_queued_action> owned = std::move(*it);
    queue.erase(it);
    tovrin_action_free(std::move(owned));
    action->restarts = 0;
    action->last_failure_sec = 0;
    action->last_failure_nsec = 0;
    if (queue.empty() && conn->current_state == TOVRIN_STATE_STOPPING_UP_COMMANDS)
        tovrin_conn_deliver_message(conn->inst, conn, conn, TOVRIN_MSG_CHECK_STOP);
}

void tovrin_conn_clear_actions(tovrin_conn *conn) {
    if (conn->command_part != nullptr)
        queue_clear(conn, conn->command_part->queued_actions);
    if (conn->n_queued_start_actions > 0) {
        tovrin_log(TOVRIN_LOG_INFO, "%s had %d queued start actions; clearing them",
                   conn->name.c_str(), conn->n_queued_start_actions);
        conn->n_queued_start_actions = 0;
    }
    if (conn->n_queued_stop_actions > 0) {
        tovrin_log(TOVRIN_LOG_INFO, "%s had %d queued stop actions; clearing them",
                   conn->name.c_str(), conn->n_queued_stop_actions);
        conn->n_queued_stop_actions = 0;
    }
    if (conn->n_queued_test_actions > 0) {
        tovrin_log(TOVRIN_LOG_INFO, "%s had %d queued test actions; clearing them",
                   conn->name.c_str(), conn->n_queued_test_actions);
        conn->n_queued_test_actions = 0;
    }
}

void tovrin_conn_run_queue(tovrin_conn *conn) {
    tovrin_queued_action *head = tovrin_conn_queue_head(conn);
    if (head != nullptr && head->state == TOVRIN_QA_IDLE)
        tovrin_action_run(head);
}

void tovrin_conn_actions_release(tovrin_conn *conn) {
    if (tovrin_command_part *part = conn->command_part.get()) {
        for (tovrin_queued_action_list *queue : {&part->queued_up_actions, &part->queued_actions}) {
            while (!queue->empty()) {
                std::unique_ptr<tovrin_queued_action> entry = std::move(queue->front());
                queue->pop_front();
                if (entry->state != TOVRIN_QA_IDLE && entry->pid > 0)
                    conn->inst->signal_group(entry->pid, SIGTERM);
                tovrin_action_unregister(entry.get());
                tovrin_action_free(std::move(entry));
            }
        }
    }
    conn->n_queued_start_actions = 0;
    conn->n_queued_stop_actions = 0;
    conn->n_queued_test_actions = 0;
}
