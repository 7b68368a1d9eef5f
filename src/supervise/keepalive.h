#pragma once

#include <event2/util.h>

struct tovrin_inst;

// Arms the keepalive timer for the configured period unless it is pending.
void tovrin_keepalive_arm(tovrin_inst *inst);
// Disarms the keepalive timer.
void tovrin_keepalive_cancel(tovrin_inst *inst);
// Callback of tovrin_timer: repairs conns that should be running.
void tovrin_keepalive(evutil_socket_t fd, short events, void *arg);
