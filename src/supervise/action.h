#pragma once

#include <event2/util.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/event_slot.h"
#include "platform/unique_fd.h"

struct tovrin_conn;

enum tovrin_action_type {
    TOVRIN_ACTION_START = 0,
    TOVRIN_ACTION_STOP = 1,
    TOVRIN_ACTION_TEST = 2,
    TOVRIN_ACTION_UP = 3,
};

// One configured command of a conn, in configuration order.
struct tovrin_action {
    int type = TOVRIN_ACTION_START;
    int config_line = 0;           // line of its clause in the file it came from
    std::string command;           // as configured, trailing line break included
    int restarts = 0;              // up commands: abnormal exits counted against maxrestarts
    int64_t last_failure_sec = 0;  // up commands: monotonic time of the last abnormal exit
    int32_t last_failure_nsec = 0;
};

// Makes a configured command holding a copy of command; null (after
// logging) when it cannot be allocated.
std::unique_ptr<tovrin_action> tovrin_action_new(std::string_view command, int type);

enum tovrin_queued_action_state {
    TOVRIN_QA_IDLE = 0,
    TOVRIN_QA_RUNNING = 1,
    TOVRIN_QA_TERMINATING = 2,
};

// Seconds between SIGTERM and SIGKILL for a child that does not stop.
constexpr int TOVRIN_ACTION_KILL_DELAY = 10;
// What is kept of a child's output; the rest is read and dropped, so a
// chatty child never blocks on a full pipe and never fills our memory.
constexpr size_t TOVRIN_ACTION_OUTPUT_MAX = 64 * 1024;
// A command line as shown in messages holds at most this many characters.
constexpr size_t TOVRIN_COMMAND_LINE_MAX = 1023;

// One queued or running command. Owned by the queue it is in; holds events,
// so it never moves. While its child runs it is listed in the instance's
// running_actions and takes itself out when it goes.
struct tovrin_queued_action {
    tovrin_queued_action() = default;
    tovrin_queued_action(const tovrin_queued_action &) = delete;
    tovrin_queued_action &operator=(const tovrin_queued_action &) = delete;
    ~tovrin_queued_action();

    tovrin_conn *conn = nullptr;
    tovrin_action *action = nullptr;
    std::string command_name;
    std::vector<std::string> argv;
    int type = TOVRIN_ACTION_START;
    int state = TOVRIN_QA_IDLE;
    int timeout = 0;  // seconds; 0 is no limit
    pid_t pid = 0;
    bool ran = false;  // a child was started at least once
    unique_fd stdout_fd;
    unique_fd stderr_fd;
    std::string output;  // what the child wrote, kept only to keep its pipes flowing
    bool output_open = false;
    event_slot stdout_event;
    event_slot stderr_event;
    event_slot action_timeout_event;
    event_slot action_timeout_kill_event;

    // Up commands that keep exiting cleanly at once are re-spawned from this
    // timer instead of on every reaping.
    timespec run_started{};  // when the current child was spawned; zero: unknown
    int quick_exits = 0;     // clean exits in a row, each within a second of its start
    bool throttled = false;  // re-spawns wait for respawn_event
    event_slot respawn_event;
};

// Starts the child of an entry: 0, or -1 (logged) when no child could be
// made, the entry then staying idle.
int tovrin_action_run(tovrin_queued_action *entry);

// Read callback of both output descriptors of a running entry (arg).
void tovrin_action_read_output(evutil_socket_t fd, short events, void *arg);

// Ends the run of an entry whose time ran out (also called to end a run
// early): SIGTERM to its process group, SIGKILL later unless it goes.
void tovrin_conn_action_timeout(tovrin_queued_action *entry);

// SIGKILL to the process group of an entry that did not stop.
void tovrin_conn_action_timeout_kill(tovrin_queued_action *entry);

// Releases what one run of an entry holds (output, timers, read events,
// descriptors) and keeps the entry; state and pid are the caller's.
void tovrin_action_finish_run(tovrin_queued_action *entry);

// Takes an entry out of the instance's running_actions, so that no reaping
// finds it again; its child, if any, is no longer watched.
void tovrin_action_unregister(tovrin_queued_action *entry);

// Releases an entry taken out of its queue, and the entry itself.
void tovrin_action_free(std::unique_ptr<tovrin_queued_action> entry);

// The command line shown in messages: each argument after a blank, as many
// whole arguments as fit in TOVRIN_COMMAND_LINE_MAX characters.
std::string tovrin_action_command_line(const std::vector<std::string> &argv);
