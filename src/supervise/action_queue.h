#pragma once

#include <event2/util.h>

struct tovrin_conn;
struct tovrin_action;
struct tovrin_queued_action;

// Builds an idle entry running action for conn and appends it to the conn's
// queued_actions, which owns it; does not start it. Logs and queues nothing
// when the command yields no token.
void tovrin_queue_action(tovrin_conn *conn, tovrin_action *action);

// Queue every start (stop) action of conn and count them in
// n_queued_start_actions (n_queued_stop_actions); neither starts the queue.
void tovrin_conn_queue_start_actions(tovrin_conn *conn);
void tovrin_conn_queue_stop_actions(tovrin_conn *conn);

// Callback of a conn's test_event: queues every test action as a new test
// run and starts the queue. arg is the conn.
void tovrin_conn_run_tests(evutil_socket_t fd, short events, void *arg);

// Runs the tests of conn now (delay 0) or arms test_event for delay seconds.
void tovrin_conn_schedule_tests(tovrin_conn *conn, int delay);

// Disarms test_event.
void tovrin_conn_cancel_tests(tovrin_conn *conn);

// Queues and starts every up action of conn that is not queued already.
void tovrin_conn_queue_up_actions(tovrin_conn *conn);

// Ends every up command of conn that has a child, as on a time-out; each
// entry goes when its exit is handled. An entry whose re-spawn is still
// waiting goes when its timer fires and finds the conn no longer running.
void tovrin_conn_stop_up_actions(tovrin_conn *conn);

// Takes an up entry out of conn's queued_up_actions and frees it, as when
// its exit is handled outside the running states: the action's restart count
// and last failure start over, and a conn stopping its up commands is sent
// check stop when its last one goes.
void tovrin_conn_drop_up_action(tovrin_conn *conn, tovrin_queued_action *entry);

// Ends the running head of queued_actions, drops the idle entries and zeroes
// the three queued-action counters.
void tovrin_conn_clear_actions(tovrin_conn *conn);

// Starts the head of queued_actions if it is idle.
void tovrin_conn_run_queue(tovrin_conn *conn);

// Before conn is freed: SIGTERM to the process group of every child of both
// queues, and every entry freed, so that no later reaping or timer can
// reach the conn. The children are reaped later and ignored.
void tovrin_conn_actions_release(tovrin_conn *conn);
