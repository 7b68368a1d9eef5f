#pragma once

#include <event2/util.h>

// Callback of the SIGUSR2 event: writes the conn graph. arg is the instance.
void tovrin_graph_dump(evutil_socket_t signal, short events, void *arg);

struct tovrin_inst;

// Writes a snapshot of the message queue and the conns while the marker file
// exists; does nothing otherwise. The names and mode (1 queued, 2
// dispatched, 0 a status change) describe what just happened.
void tovrin_mq_snapshot(tovrin_inst *inst, const char *src, const char *dst, const char *type,
                        int mode);
