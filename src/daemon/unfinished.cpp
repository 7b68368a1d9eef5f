// Entry points whose subsystems are not built yet. Each keeps its final
// signature and does the least that keeps the daemon safe to run; this file
// shrinks as the subsystems arrive.

#include "config/graph_dump.h"
#include "config/state_dump.h"
#include "supervise/inst.h"

// Unfinished: no snapshots are written yet.
void tovrin_mq_snapshot(tovrin_inst *, const char *, const char *, const char *, int) {}

// Unfinished.
void tovrin_state_dump(evutil_socket_t, short, void *) {}
void tovrin_graph_dump(evutil_socket_t, short, void *) {}
