#pragma once

#include <functional>

#include "daemon/paths.h"

struct tovrin_inst;

// The whole life of the daemon: start-up, the event loop, shutdown. paths
// must outlive the process's exit handlers. Returns the exit status: 0 when
// the loop ends, -1 when start-up fails (status 1 comes from a broken store
// link, which exits directly).
int tovrin_main(const tovrin_paths &paths);

// Start-up of an initialised instance, up to the event loop: loads the
// configuration, raises the descriptor limit when the conns need it, waits
// for the boot delay (sleeping through sleep_for), publishes every conn's
// status with the first start messages, and arms the keepalive.
void tovrin_daemon_start(tovrin_inst *inst, const std::function<void(unsigned seconds)> &sleep_for);

// Exit handler: removes this process's pid file. arg is the tovrin_paths.
void tovrin_pidfile_release(int status, void *arg);
