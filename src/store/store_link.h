#pragma once

#include <event2/util.h>

struct tovrin_inst;

enum tovrin_store_request {
    TOVRIN_STORE_SET = 1,
    TOVRIN_STORE_SUBSCRIBE = 2,
    TOVRIN_STORE_UNSUBSCRIBE = 3,
    TOVRIN_STORE_VALUE = 8,
    TOVRIN_STORE_DELETE = 9,
};

// Frames and queues one request to the store; flag and value are used by
// set requests only. 0, or -1 when nothing was queued.
int tovrin_store_send(tovrin_inst *inst, int type, const char *key, int flag, const char *value);
int tovrin_store_subscribe(tovrin_inst *inst, const char *key);
int tovrin_store_unsubscribe(tovrin_inst *inst, const char *key);

// Event handlers of the store socket; arg is the instance.
void tovrin_store_read(evutil_socket_t fd, short events, void *arg);
void tovrin_store_write(evutil_socket_t fd, short events, void *arg);
