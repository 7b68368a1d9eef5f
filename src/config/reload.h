#pragma once

#include <event2/util.h>

// Callback of the SIGHUP event: reloads the configuration. arg is the instance.
void tovrin_config_sighup(evutil_socket_t signal, short events, void *arg);
// Callback of reload_check_event: merges a waiting reload once it may.
void tovrin_config_reload_check(evutil_socket_t fd, short events, void *arg);
// Callback of config_reload_timer: stops everything so a reload can merge.
void tovrin_config_reload_timeout(evutil_socket_t fd, short events, void *arg);
