#pragma once

#include <event2/util.h>

#include <ctime>
#include <string>

// Callback of the SIGUSR1 event: writes the state dump. arg is the instance.
void tovrin_state_dump(evutil_socket_t signal, short events, void *arg);

// The local time of `when` as asctime gives it, its line break included;
// the first line of every dump file.
std::string tovrin_dump_local_time(time_t when);
