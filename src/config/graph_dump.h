#pragma once

#include <event2/util.h>

#include <cstdio>

struct tovrin_inst;
struct tovrin_conn;

// Callback of the SIGUSR2 event: writes the conn graph. arg is the instance.
void tovrin_graph_dump(evutil_socket_t signal, short events, void *arg);

// Writes the graph of the conns in force to out, as SIGUSR2 does.
void tovrin_graph_write(tovrin_inst *inst, FILE *out);

// Writes a snapshot of the message queue and the conns while the marker file
// exists; does nothing otherwise. The names and mode (1 queued, 2
// dispatched, 0 a status change) describe what just happened; the file
// shows the instance alone.
void tovrin_mq_snapshot(tovrin_inst *inst, const char *src, const char *dst, const char *type,
                        int mode);

// Writes one conn's graph lines to out: its node coloured by state, its
// child edges and, for a group, its member edges and a cluster numbered
// cluster.
void tovrin_graph_node(const tovrin_conn *conn, FILE *out, int cluster);
