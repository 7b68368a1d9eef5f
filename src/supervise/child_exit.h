#pragma once

#include <event2/util.h>

// Callback of the SIGCHLD event: reaps every ended child. arg is the instance.
void tovrin_sigchld(evutil_socket_t signal, short events, void *arg);
