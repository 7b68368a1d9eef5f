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

// For as long as it lives, snapshots look the marker up once, when it is
// made, rather than at every call: a dispatch run or the first start of the
// conns takes a snapshot at every one of thousands of messages and status
// changes, and a failed open costs about as much as a small spawn. A scope
// made inside another one changes nothing.
class tovrin_mq_snapshot_scope {
  public:
    explicit tovrin_mq_snapshot_scope(tovrin_inst *inst);
    ~tovrin_mq_snapshot_scope();
    tovrin_mq_snapshot_scope(const tovrin_mq_snapshot_scope &) = delete;
    tovrin_mq_snapshot_scope &operator=(const tovrin_mq_snapshot_scope &) = delete;

  private:
    tovrin_inst *inst_;
    bool outermost_;
};

// Writes one conn's graph lines to out: its node coloured by state, its
// child edges and, for a group, its member edges and a cluster numbered
// cluster.
void tovrin_graph_node(const tovrin_conn *conn, FILE *out, int cluster);
