#include "supervise/child_exit.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <memory>

#include "daemon/log.h"
#include "daemon/log_mask.h"
#include "supervise/action.h"
#include "supervise/action_queue.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/message.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"

namespace {

// The longest wait before a conn whose up command failed is restarted.
constexpr int32_t RESTART_DELAY_MAX_MS = 180000;
// An up command that exits cleanly this many times in a row, each time
// within a second of its start, is re-spawned at most once a second.
constexpr int QUICK_EXITS_BEFORE_THROTTLE = 3;
constexpr long RESPAWN_INTERVAL_SECONDS = 1;
// The shortest wait before a conn whose up command could not be started is
// restarted. Retrying at once cannot succeed while nothing has freed a
// descriptor or a process, and without a delay the restart would run inside
// the same dispatch for as long as spawning fails.
constexpr int32_t SPAWN_RETRY_DELAY_MIN_MS = 1000;

// How one reaped child ended.
struct child_status {
    pid_t pid;
    int code;    // exit status, or 128 + the signal
    int signal;  // 0 unless killed by a signal
};

bool conn_is_running(const tovrin_conn *conn) {
    return conn->current_state >= TOVRIN_STATE_STARTING_UP_COMMANDS &&
           conn->current_state <= TOVRIN_STATE_UP;
}

bool conn_logs(const tovrin_conn *conn, uint64_t word) {
    return (conn->log_mask & word) != 0;
}

void conn_send_self(tovrin_conn *conn, int type) {
    tovrin_conn_deliver_message(conn->inst, conn, conn, type);
}

child_status child_status_decode(pid_t pid, int status, bool debug) {
    child_status result{pid, 1, 0};
    int low = status & 0xffff;
    if ((status & 0x7f) == 0) {
        result.code = (status >> 8) & 0xff;
    } else if (low >= 1 && low <= 255) {
        result.signal = status & 0x7f;
        result.code = 128 + result.signal;
        if (debug) {
            tovrin_log(TOVRIN_LOG_INFO, "DEBUG -- child process %d killed with a signal %d", pid,
                       result.signal);
        }
    }
    if (debug)
        tovrin_log(TOVRIN_LOG_INFO, "sigchild event for %d with return code %d", pid, result.code);
    return result;
}

// Seconds from *from to *to; 0 when *to is earlier.
double timespec_elapsed(const timespec &from, const timespec &to) {
    double elapsed = static_cast<double>(to.tv_sec - from.tv_sec) +
                     static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e9;
    return std::max(elapsed, 0.0);
}

// Whether the child of an entry, reaped just now, ended within a second of
// its start. Unknown times count as slow, so a broken clock never throttles.
bool up_action_exited_quickly(tovrin_inst *inst, const tovrin_queued_action *entry) {
    if (entry->run_started.tv_sec == 0 && entry->run_started.tv_nsec == 0)
        return false;
    timespec now{};
    if (inst->clock->monotonic(&now) != 0)
        return false;
    return timespec_elapsed(entry->run_started, now) < 1.0;
}

void up_action_respawn(evutil_socket_t, short, void *arg) {
    auto *entry = static_cast<tovrin_queued_action *>(arg);
    tovrin_conn *conn = entry->conn;
    if (conn_is_running(conn)) {
        tovrin_up_action_start(entry);
        return;
    }
    // The conn left the running states while the re-spawn waited; this is
    // where that exit is handled. Frees the entry and this event with it.
    tovrin_conn_drop_up_action(conn, entry);
}

// Starts an up command again after a clean exit: at once, or from its
// respawn timer when it keeps exiting at once.
void up_action_rerun(tovrin_conn *conn, tovrin_queued_action *entry) {
    tovrin_action_finish_run(entry);
    // The child is reaped and its pid free for reuse; nothing may signal it.
    entry->state = TOVRIN_QA_IDLE;
    entry->pid = 0;
    if (!up_action_exited_quickly(conn->inst, entry)) {
        entry->quick_exits = 0;
        entry->throttled = false;
        tovrin_up_action_start(entry);
        return;
    }
    if (entry->quick_exits < INT_MAX)
        entry->quick_exits++;
    if (entry->quick_exits < QUICK_EXITS_BEFORE_THROTTLE) {
        tovrin_up_action_start(entry);
        return;
    }
    if (!entry->throttled) {
        const tovrin_queued_action_list &up = conn->command_part->queued_up_actions;
        bool conn_throttled =
            std::any_of(up.begin(), up.end(), [](const auto &queued) { return queued->throttled; });
        if (!conn_throttled) {
            tovrin_log(TOVRIN_LOG_WARN,
                       "%s: up command %s keeps exiting at once; re-spawning it at most once a "
                       "second",
                       conn->name.c_str(), entry->command_name.c_str());
        }
        entry->throttled = true;
    }
    entry->respawn_event.set<up_action_respawn>(conn->inst->base.get(), -1, 0, entry);
    entry->respawn_event.add_seconds(*conn->inst->clock, RESPAWN_INTERVAL_SECONDS);
}

// Logs the time since the previous abnormal exit of an up command and
// records this one.
void up_action_note_failure(tovrin_conn *conn, tovrin_action *action) {
    timespec previous{static_cast<time_t>(action->last_failure_sec), action->last_failure_nsec};
    timespec now{};
    tovrin_inst *inst = conn->inst;
    if (inst->clock->monotonic(&now) != 0)
        return;
    action->last_failure_sec = now.tv_sec;
    action->last_failure_nsec = static_cast<int32_t>(now.tv_nsec);
    if (previous.tv_sec == 0 || !conn_logs(conn, TOVRIN_LOG_DEBUG_WORD))
        return;
    // Truncated to whole seconds; bounded so that the conversion is defined.
    double elapsed = std::min(timespec_elapsed(previous, now), 1.8e19);
    auto seconds = static_cast<unsigned long long>(elapsed);
    tovrin_log(TOVRIN_LOG_INFO, "%s: up action: abnormal exit after: %llu(min):%llu(s)",
               conn->name.c_str(), seconds / 60, seconds);
}

void up_action_failed(tovrin_conn *conn, tovrin_queued_action_list::iterator position,
                      bool started);

void up_action_exited(tovrin_conn *conn, tovrin_queued_action_list::iterator position,
                      const child_status &exit) {
    tovrin_queued_action *entry = position->get();
    if (conn_logs(conn, TOVRIN_LOG_COMMANDDEBUG)) {
        tovrin_log(TOVRIN_LOG_INFO, "%s sigchild event for up command %d with return code %d",
                   conn->name.c_str(), exit.pid, exit.code);
    }
    if (!conn_is_running(conn)) {
        tovrin_conn_drop_up_action(conn, entry);
        return;
    }
    if (exit.code == 0) {
        up_action_rerun(conn, entry);
        return;
    }
    up_action_failed(conn, position, true);
}

// An up command that ended abnormally, or could not be started at all: its
// entry goes, and the conn restarts after the back-off unless the command
// has failed more often than maxrestarts allows.
void up_action_failed(tovrin_conn *conn, tovrin_queued_action_list::iterator position,
                      bool started) {
    tovrin_action *action = (*position)->action;
    std::unique_ptr<tovrin_queued_action> owned = std::move(*position);
    conn->command_part->queued_up_actions.erase(position);
    tovrin_action_free(std::move(owned));
    if (action->restarts < INT_MAX)
        action->restarts++;
    if (conn->maxrestarts >= 0 && action->restarts > conn->maxrestarts)
        return;
    up_action_note_failure(conn, action);

    // Milliseconds in 32 bits: a product past them wraps, and a wrapped
    // product of 0 or less restarts the conn at once. Formed wide and
    // narrowed, so the wrap is defined. An up command that could not be
    // started waits at least a little, or a spawn that keeps failing would
    // be retried without end inside one dispatch.
    auto delay_ms =
        static_cast<int32_t>(static_cast<int64_t>(action->restarts) * conn->restartdelayfactor);
    if (!started)
        delay_ms = std::max(delay_ms, SPAWN_RETRY_DELAY_MIN_MS);
    if (delay_ms > 0) {
        const int32_t capped = std::min(delay_ms, RESTART_DELAY_MAX_MS);
        timer_slot &delay = conn->command_part->up_action_failed_delay_event;
        delay.set<tovrin_up_action_failed_delay>();
        delay.add_seconds(*conn->inst->clock, conn->inst->base.get(), conn,
                          static_cast<long>(capped / 1000));
        return;
    }
    if (conn_logs(conn, TOVRIN_LOG_DEBUG_WORD))
        tovrin_log(TOVRIN_LOG_INFO, "%s up command failed, restarting", conn->name.c_str());
    conn_send_self(conn, TOVRIN_MSG_RESTART);
}

// Counts the end of one test of the current run and, after the last one,
// acts on the run's verdict.
void test_action_exited(tovrin_conn *conn, const tovrin_queued_action &entry, int code) {
    conn->n_queued_test_actions--;
    if (code != 0 || entry.state == TOVRIN_QA_TERMINATING)
        conn->current_test_run_has_failure = true;
    if (conn->n_queued_test_actions > 0)
        return;

    const bool up = conn->current_state == TOVRIN_STATE_UP;
    if (conn->current_test_run_has_failure) {
        conn->n_test_failures++;
        conn->n_test_passes = 0;
        if (conn_logs(conn, up ? TOVRIN_LOG_UPTESTSFAIL : TOVRIN_LOG_DOWNTESTSFAIL))
            tovrin_log(TOVRIN_LOG_INFO, "%s test run failed", conn->name.c_str());
    } else {
        if (conn->n_test_failures > 0)
            tovrin_log(TOVRIN_LOG_INFO, "%s test run succeeded", conn->name.c_str());
        conn->n_test_failures = 0;
        conn->n_test_passes++;
        if (conn_logs(conn, up ? TOVRIN_LOG_UPTESTSSUCCEED : TOVRIN_LOG_DOWNTESTSSUCCEED))
            tovrin_log(TOVRIN_LOG_INFO, "%s test run succeeded", conn->name.c_str());
    }

    if (conn->current_state < TOVRIN_STATE_TESTING || conn->current_state > TOVRIN_STATE_UP) {
        if (conn_logs(conn, TOVRIN_LOG_DEBUG_WORD)) {
            tovrin_log(TOVRIN_LOG_INFO,
                       "tovrin_conn_finished_test_actions: tests are finished, but conn %s in "
                       "state %d",
                       conn->name.c_str(), conn->current_state);
        }
        return;
    }
    if (!conn->current_test_run_has_failure && conn->current_state == TOVRIN_STATE_TESTING)
        conn_send_self(conn, TOVRIN_MSG_CHECK_START);
    if (conn->n_test_failures > conn->testthreshold) {
        if (conn_logs(conn, TOVRIN_LOG_DEBUG_WORD)) {
            tovrin_log(TOVRIN_LOG_INFO, "%s test theshold of %d hit, restarting",
                       conn->name.c_str(), conn->testthreshold);
        }
        conn_send_self(conn, TOVRIN_MSG_RESTART);
        return;
    }
    // Armed only now, after the verdict, so runs never overlap.
    tovrin_conn_schedule_tests(conn, conn->testperiod);
}

// Handles the exit of the head of a conn's queued_actions.
void queued_action_exited(tovrin_conn *conn, const child_status &exit) {
    tovrin_queued_action_list &queue = conn->command_part->queued_actions;
    std::unique_ptr<tovrin_queued_action> entry = std::move(queue.front());
    queue.pop_front();
    if (conn_logs(conn, TOVRIN_LOG_COMMANDDEBUG)) {
        tovrin_log(TOVRIN_LOG_INFO, "%s sigchild event for action pid %d with return code %d",
                   conn->name.c_str(), exit.pid, exit.code);
    }
    // Ended by its time-out or by clearing: not a failure of the command.
    const bool failed = exit.code != 0 && exit.signal != SIGTERM && exit.signal != SIGKILL;
    switch (entry->type) {
        case TOVRIN_ACTION_STOP:
            if (failed && conn_logs(conn, TOVRIN_LOG_STOPFAIL)) {
                tovrin_log(TOVRIN_LOG_ERROR, "stop command failed for conn %s :%s",
                           conn->name.c_str(), tovrin_action_command_line(entry->argv).c_str());
            }
            conn->n_queued_stop_actions--;
            if (conn->n_queued_stop_actions <= 0 && conn->current_state == TOVRIN_STATE_STOPPING)
                conn_send_self(conn, TOVRIN_MSG_CHECK_STOP);
            break;
        case TOVRIN_ACTION_START:
            if (failed && conn_logs(conn, TOVRIN_LOG_STARTFAIL)) {
                tovrin_log(TOVRIN_LOG_ERROR, "start command failed for conn %s :%s",
                           conn->name.c_str(), tovrin_action_command_line(entry->argv).c_str());
            }
            conn->n_queued_start_actions--;
            if (conn->n_queued_start_actions <= 0 && conn->current_state == TOVRIN_STATE_STARTING)
                conn_send_self(conn, TOVRIN_MSG_CHECK_START);
            break;
        case TOVRIN_ACTION_TEST:
            test_action_exited(conn, *entry, exit.code);
            break;
        default:
            break;
    }
    if (conn->current_state == TOVRIN_STATE_STOPPING_UP_COMMANDS)
        conn_send_self(conn, TOVRIN_MSG_CHECK_STOP);
    tovrin_action_free(std::move(entry));
    tovrin_conn_run_queue(conn);
}

// Finds the entry whose child this was and acts on its exit. Only children
// of entries in force are in running_actions, and only while running or
// terminating, and pids of live children are unique: the one entry found is
// the one a walk over every conn's queues would find first.
void child_exit_handle(tovrin_inst *inst, const child_status &exit) {
    auto it = inst->running_actions.find(exit.pid);
    if (it == inst->running_actions.end())
        return;
    tovrin_queued_action *entry = it->second;
    inst->running_actions.erase(it);
    // An entry is queued only for one of its conn's commands, so the conn
    // has its command part.
    tovrin_conn *conn = entry->conn;
    auto &up = conn->command_part->queued_up_actions;
    auto position = std::find_if(up.begin(), up.end(),
                                 [entry](const auto &queued) { return queued.get() == entry; });
    if (position != up.end()) {
        up_action_exited(conn, position, exit);
    } else if (tovrin_conn_queue_head(conn) == entry) {
        queued_action_exited(conn, exit);
    }
}

}  // namespace

void tovrin_child_exited(tovrin_inst *inst, pid_t pid, int status) {
    const bool debug = inst->globals != nullptr &&
                       (inst->globals->instance_log_mask & TOVRIN_INST_LOG_DEBUGGENERAL) != 0;
    child_exit_handle(inst, child_status_decode(pid, status, debug));
}

void tovrin_sigchld(evutil_socket_t, short, void *arg) {
    auto *inst = static_cast<tovrin_inst *>(arg);
    for (;;) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid < 0 && errno == EINTR)
            continue;
        if (pid <= 0)
            return;
        if (inst != nullptr)
            tovrin_child_exited(inst, pid, status);
    }
}

void tovrin_up_action_failed_delay(evutil_socket_t, short, void *arg) {
    auto *conn = static_cast<tovrin_conn *>(arg);
    if (conn == nullptr || !conn_is_running(conn))
        return;
    if (conn_logs(conn, TOVRIN_LOG_DEBUG_WORD))
        tovrin_log(TOVRIN_LOG_INFO, "%s up command failed, restarting", conn->name.c_str());
    conn_send_self(conn, TOVRIN_MSG_RESTART);
}

void tovrin_up_action_start(tovrin_queued_action *entry) {
    if (tovrin_action_run(entry) == 0)
        return;
    tovrin_conn *conn = entry->conn;
    auto &up = conn->command_part->queued_up_actions;
    auto position = std::find_if(up.begin(), up.end(),
                                 [entry](const auto &queued) { return queued.get() == entry; });
    if (position != up.end())
        up_action_failed(conn, position, false);
}
