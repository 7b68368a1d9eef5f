#pragma once

#include "daemon/paths.h"

// The whole life of the daemon: start-up, the event loop, shutdown. paths
// must outlive the process's exit handlers. Returns the exit status: 0 when
// the loop ends, -1 when start-up fails (status 1 comes from a broken store
// link, which exits directly).
int tovrin_main(const tovrin_paths &paths);

// Exit handler: removes this process's pid file. arg is the tovrin_paths.
void tovrin_pidfile_release(int status, void *arg);
