#pragma once

#include <event2/util.h>

// Callback of the SIGUSR2 event: writes the conn graph. arg is the instance.
void tovrin_graph_dump(evutil_socket_t signal, short events, void *arg);
