// Entry points whose subsystems are not built yet. Each keeps its final
// signature and does the least that keeps the daemon safe to run; this file
// shrinks as the subsystems arrive.

#include <sys/wait.h>
#include <unistd.h>

#include "config/fixup.h"
#include "config/graph_dump.h"
#include "config/load.h"
#include "config/reload.h"
#include "config/state_dump.h"
#include "daemon/log.h"
#include "store/status.h"
#include "supervise/child_exit.h"
#include "supervise/inst.h"
#include "supervise/keepalive.h"
#include "supervise/message_queue.h"

// Unfinished.
void tovrin_publish_status(tovrin_conn *) {}

// Unfinished: messages are not queued yet.
void tovrin_conn_deliver_message(tovrin_inst *, tovrin_conn *, tovrin_conn *, int) {}

// Unfinished.
void tovrin_dispatch_messages(evutil_socket_t, short, void *) {}

// Unfinished.
void tovrin_keepalive_arm(tovrin_inst *) {}
void tovrin_keepalive_cancel(tovrin_inst *) {}
void tovrin_keepalive(evutil_socket_t, short, void *) {}

// Unfinished: reaps ended children so none is left a zombie.
void tovrin_sigchld(evutil_socket_t, short, void *) {
    int status;
    while (waitpid(-1, &status, WNOHANG) > 0) {
    }
}

// Unfinished: there is no parser yet, so no configuration ever loads.
int tovrin_config_load(tovrin_inst *, tovrin_config_handover) {
    return -1;
}

// Unfinished.
void tovrin_config_move(tovrin_inst *) {}
void tovrin_config_sighup(evutil_socket_t, short, void *) {}
void tovrin_config_reload_check(evutil_socket_t, short, void *) {}
void tovrin_config_reload_timeout(evutil_socket_t, short, void *) {}
void tovrin_state_dump(evutil_socket_t, short, void *) {}
void tovrin_graph_dump(evutil_socket_t, short, void *) {}
