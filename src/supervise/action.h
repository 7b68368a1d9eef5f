#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
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
    std::string command;           // as configured, trailing line break included
    int restarts = 0;              // up commands: abnormal exits counted against maxrestarts
    int64_t last_failure_sec = 0;  // up commands: monotonic time of the last abnormal exit
    int32_t last_failure_nsec = 0;
};

// Makes a configured command; null (after logging) when it cannot be
// allocated.
std::unique_ptr<tovrin_action> tovrin_action_new(const std::string &command, int type);

enum tovrin_queued_action_state {
    TOVRIN_QA_IDLE = 0,
    TOVRIN_QA_RUNNING = 1,
    TOVRIN_QA_TERMINATING = 2,
};

// One queued or running command. Owned by the queue it is in; holds events,
// so it never moves.
struct tovrin_queued_action {
    tovrin_queued_action() = default;
    tovrin_queued_action(const tovrin_queued_action &) = delete;
    tovrin_queued_action &operator=(const tovrin_queued_action &) = delete;

    tovrin_conn *conn = nullptr;
    tovrin_action *action = nullptr;
    std::string command_name;
    std::vector<std::string> argv;
    int type = TOVRIN_ACTION_START;
    int state = TOVRIN_QA_IDLE;
    int timeout = 0;  // seconds; 0 is no limit
    pid_t pid = 0;
    unique_fd stdout_fd;
    unique_fd stderr_fd;
    std::string output;  // what the child wrote, kept only to keep its pipes flowing
    event_slot stdout_event;
    event_slot stderr_event;
    event_slot action_timeout_event;
    event_slot action_timeout_kill_event;
};
