#pragma once

#include <event2/util.h>
#include <sys/types.h>

struct tovrin_inst;
struct tovrin_queued_action;

// Acts on the end of one reaped child, given its wait status: a child of no
// queued action in force is ignored.
void tovrin_child_exited(tovrin_inst *inst, pid_t pid, int status);

// Callback of the SIGCHLD event: reaps every ended child and acts on the
// exit of each one that runs a queued action. arg is the instance.
void tovrin_sigchld(evutil_socket_t signal, short events, void *arg);

// Callback of a conn's up_action_failed_delay_event: restarts the conn (arg)
// if it is still running.
void tovrin_up_action_failed_delay(evutil_socket_t fd, short events, void *arg);

// Starts an up command queued in its conn's queued_up_actions. One that
// cannot be started (no descriptors or processes left) is not left idle: it
// goes as an up command that failed goes, and the conn restarts after the
// back-off, at least a second later, until maxrestarts is exceeded.
void tovrin_up_action_start(tovrin_queued_action *entry);
