#include "supervise/action.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "daemon/log.h"
#include "daemon/log_mask.h"
#include "supervise/conn.h"
#include "supervise/inst.h"

namespace {

// Numbers that identify the timer diagnostics of this file in the log.
enum {
    SITE_KILL_ALREADY_SCHEDULED = 1201,
    SITE_KILL_NOT_INITIALIZED = 1205,
    SITE_FINISH_TIMEOUT_NOT_INITIALIZED = 1301,
    SITE_FINISH_KILL_NOT_INITIALIZED = 1304,
};

// What the first read reserves for the output; it grows from there.
constexpr size_t OUTPUT_INITIAL = 1024;

void action_timeout_cb(evutil_socket_t, short, void *arg) {
    tovrin_conn_action_timeout(static_cast<tovrin_queued_action *>(arg));
}

void action_timeout_kill_cb(evutil_socket_t, short, void *arg) {
    tovrin_conn_action_timeout_kill(static_cast<tovrin_queued_action *>(arg));
}

// Signals the process group of an entry's child. A pid of 0 or less would
// address our own group or every process, so it is never used.
void action_signal(const tovrin_queued_action *entry, int sig) {
    if (entry->pid > 0)
        entry->conn->inst->signal_group(entry->pid, sig);
}

}  // namespace

std::unique_ptr<tovrin_action> tovrin_action_new(std::string_view command, int type) {
    try {
        auto action = std::make_unique<tovrin_action>();
        action->type = type;
        action->command = command;
        return action;
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate action");
        return nullptr;
    }
}

tovrin_queued_action::~tovrin_queued_action() {
    tovrin_action_unregister(this);
}

void tovrin_action_unregister(tovrin_queued_action *entry) {
    if (entry->conn == nullptr || entry->conn->inst == nullptr || entry->pid <= 0)
        return;
    auto &running = entry->conn->inst->running_actions;
    auto it = running.find(entry->pid);
    if (it != running.end() && it->second == entry)
        running.erase(it);
}

int tovrin_action_run(tovrin_queued_action *entry) {
    tovrin_conn *conn = entry->conn;
    tovrin_inst *inst = conn->inst;
    int out_fd = -1;
    int err_fd = -1;
    pid_t pid = -1;
    try {
        std::vector<char *> args;
        args.reserve(entry->argv.size() + 1);
        for (std::string &arg : entry->argv)
            args.push_back(arg.data());
        args.push_back(nullptr);
        // A program that is missing or cannot run still gives a child, which
        // exits with 127: the command then fails like any other.
        pid = inst->spawn(entry->command_name.c_str(), args.data(), &out_fd, &err_fd);
    } catch (const std::bad_alloc &) {
        pid = -1;
    }
    if (pid <= 0) {
        tovrin_log(TOVRIN_LOG_FATAL, "could not run command %s for conn %s",
                   entry->command_name.c_str(), conn->name.c_str());
        return -1;
    }
    unique_fd out(out_fd);
    unique_fd err(err_fd);
    try {
        inst->running_actions[pid] = entry;
    } catch (const std::bad_alloc &) {
        // A child we could not find again at its exit would hold the queue
        // forever; end it now and let the reaping ignore it.
        inst->signal_group(pid, SIGKILL);
        tovrin_log(TOVRIN_LOG_FATAL, "could not run command %s for conn %s",
                   entry->command_name.c_str(), conn->name.c_str());
        return -1;
    }

    if ((conn->log_mask & TOVRIN_LOG_COMMANDDEBUG) != 0) {
        tovrin_log(TOVRIN_LOG_INFO, "running command %s for conn %s", entry->command_name.c_str(),
                   conn->name.c_str());
        int position = 1;
        for (const std::string &arg : entry->argv)
            tovrin_log(TOVRIN_LOG_INFO, "     ** parameter %d is: %s", position++, arg.c_str());
    }

    entry->pid = pid;
    entry->stdout_fd = std::move(out);
    entry->stderr_fd = std::move(err);
    entry->state = TOVRIN_QA_RUNNING;
    entry->ran = true;
    if (inst->clock->monotonic(&entry->run_started) != 0)
        entry->run_started = timespec{};

    event_base *base = inst->base.get();
    entry->stdout_event.set<tovrin_action_read_output>(base, entry->stdout_fd.get(),
                                                       EV_READ | EV_PERSIST, entry);
    entry->stdout_event.add();
    entry->stderr_event.set<tovrin_action_read_output>(base, entry->stderr_fd.get(),
                                                       EV_READ | EV_PERSIST, entry);
    entry->stderr_event.add();

    entry->action_timeout_event.set<action_timeout_cb>(base, -1, 0, entry);
    entry->action_timeout_kill_event.set<action_timeout_kill_cb>(base, -1, 0, entry);
    if (entry->timeout != 0)
        entry->action_timeout_event.add_seconds(*inst->clock, entry->timeout);
    return 0;
}

void tovrin_action_read_output(evutil_socket_t fd, short, void *arg) {
    auto *entry = static_cast<tovrin_queued_action *>(arg);
    bool keep = true;
    if (!entry->output_open) {
        try {
            entry->output.reserve(OUTPUT_INITIAL);
            entry->output_open = true;
        } catch (const std::bad_alloc &) {
            tovrin_log(TOVRIN_LOG_FATAL, "Could not open memstream");
            // Read anyway: an unread pipe would fire again at once and could
            // stall the child.
            keep = false;
        }
    }

    char buffer[1024];
    std::memset(buffer, 0, sizeof buffer);
    ssize_t n = read(fd, buffer, sizeof buffer - 1);
    if (n < 0) {
        if (errno != EAGAIN)
            tovrin_log(TOVRIN_LOG_FATAL, "error reading from process");
        return;
    }
    if (n == 0) {
        // At end of file the descriptor is readable for good; left in the
        // loop it would fire on every turn until the child is reaped.
        if (fd == entry->stdout_fd.get()) {
            entry->stdout_event.del();
            entry->stdout_fd.reset();
        } else if (fd == entry->stderr_fd.get()) {
            entry->stderr_event.del();
            entry->stderr_fd.reset();
        }
        return;
    }
    if (!keep)
        return;
    size_t length = strnlen(buffer, static_cast<size_t>(n));
    size_t room =
        TOVRIN_ACTION_OUTPUT_MAX - std::min(entry->output.size(), TOVRIN_ACTION_OUTPUT_MAX);
    try {
        entry->output.append(buffer, std::min(length, room));
    } catch (const std::bad_alloc &) {
        // The output is never looked at; losing some costs nothing.
    }
}

void tovrin_conn_action_timeout(tovrin_queued_action *entry) {
    if (entry->type != TOVRIN_ACTION_UP) {
        tovrin_log(TOVRIN_LOG_WARN, "warning: timeout for action %s on conn %s",
                   entry->command_name.c_str(), entry->conn->name.c_str());
    }
    entry->state = TOVRIN_QA_TERMINATING;
    action_signal(entry, SIGTERM);

    event_slot &kill_event = entry->action_timeout_kill_event;
    if (kill_event.pending()) {
        tovrin_log(TOVRIN_LOG_FATAL, "%d %s(%d) action_timeout_kill_event already scheduled",
                   SITE_KILL_ALREADY_SCHEDULED, entry->command_name.c_str(), entry->type);
        return;
    }
    if (!kill_event.initialized()) {
        tovrin_log(TOVRIN_LOG_WARN,
                   "%d %s(%d) action_timeout_kill_event not initialized yet, set and add it",
                   SITE_KILL_NOT_INITIALIZED, entry->command_name.c_str(), entry->type);
    }
    kill_event.set<action_timeout_kill_cb>(entry->conn->inst->base.get(), -1, 0, entry);
    kill_event.add_seconds(*entry->conn->inst->clock, TOVRIN_ACTION_KILL_DELAY);
}

void tovrin_conn_action_timeout_kill(tovrin_queued_action *entry) {
    if (entry == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "tovrin_conn_action_timeout_kill with NULL action");
        return;
    }
    tovrin_log(TOVRIN_LOG_WARN, "warning: action %s on conn %s not stopping - killing",
               entry->command_name.c_str(), entry->conn->name.c_str());
    entry->state = TOVRIN_QA_TERMINATING;
    action_signal(entry, SIGKILL);
}

void tovrin_action_finish_run(tovrin_queued_action *entry) {
    std::string().swap(entry->output);
    entry->output_open = false;
    if (!entry->action_timeout_event.initialized()) {
        tovrin_log(TOVRIN_LOG_WARN,
                   "%d %s(%d) action_timeout_event not initialized yet, skip deleting it",
                   SITE_FINISH_TIMEOUT_NOT_INITIALIZED, entry->command_name.c_str(), entry->type);
    } else {
        entry->action_timeout_event.del();
    }
    if (!entry->action_timeout_kill_event.initialized()) {
        tovrin_log(TOVRIN_LOG_WARN,
                   "%d %s(%d) action_timeout_kill_event not initialized yet, skip deleting it",
                   SITE_FINISH_KILL_NOT_INITIALIZED, entry->command_name.c_str(), entry->type);
    } else {
        entry->action_timeout_kill_event.del();
    }
    entry->stdout_event.del();
    entry->stderr_event.del();
    entry->stdout_fd.reset();
    entry->stderr_fd.reset();
}

void tovrin_action_free(std::unique_ptr<tovrin_queued_action> entry) {
    if (entry == nullptr)
        return;
    if (entry->ran)
        tovrin_action_finish_run(entry.get());
    tovrin_action_unregister(entry.get());
    entry.reset();
}

std::string tovrin_action_command_line(const std::vector<std::string> &argv) {
    std::string line;
    try {
        line.reserve(TOVRIN_COMMAND_LINE_MAX);
        for (const std::string &arg : argv) {
            if (line.size() + arg.size() + 1 > TOVRIN_COMMAND_LINE_MAX)
                break;
            line += ' ';
            line += arg;
        }
    } catch (const std::bad_alloc &) {
        // reserve() is the only allocation; an empty line is still a line.
    }
    return line;
}
