#pragma once

#include <event2/util.h>

// Callback of the SIGUSR1 event: writes the state dump. arg is the instance.
void tovrin_state_dump(evutil_socket_t signal, short events, void *arg);
