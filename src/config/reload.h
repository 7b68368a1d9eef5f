#pragma once

#include <event2/util.h>

struct tovrin_inst;

// Callback of the SIGHUP event: reloads the configuration. arg is the instance.
void tovrin_config_sighup(evutil_socket_t signal, short events, void *arg);

// Hand-over of a reload: stops every conn in force that the new file removes
// or changes, and merges at once when none of them is running.
void tovrin_config_reload_begin(tovrin_inst *inst);

// 1 when every removed or changed conn in force is down, else 0.
int tovrin_config_reload_ready(tovrin_inst *inst);

// Puts the waiting configuration into force: kept conns stay as they are,
// removed and changed ones are freed, new ones appended and started.
void tovrin_config_reload_merge(tovrin_inst *inst);

// Callback of reload_check_event: merges a waiting reload once it may.
void tovrin_config_reload_check(evutil_socket_t fd, short events, void *arg);
// Callback of config_reload_timer: stops everything so a reload can merge.
void tovrin_config_reload_timeout(evutil_socket_t fd, short events, void *arg);
