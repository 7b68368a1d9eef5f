#pragma once

#include <event2/util.h>

struct tovrin_inst;
struct tovrin_conn;

// Queues a message from src (null: the daemon) to dst and wakes the
// dispatcher. Handlers never run inside a delivery.
void tovrin_conn_deliver_message(tovrin_inst *inst, tovrin_conn *src, tovrin_conn *dst, int type);

// Callback of dispatch_event: drains the whole queue, including what the
// handlers deliver meanwhile. arg is the instance.
void tovrin_dispatch_messages(evutil_socket_t fd, short events, void *arg);

// Drops every queued message from or to conn; called before conn is freed,
// so no message can reach freed memory.
void tovrin_messages_purge_conn(tovrin_inst *inst, const tovrin_conn *conn);
