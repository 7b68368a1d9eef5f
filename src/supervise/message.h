#pragma once

struct tovrin_conn;

enum tovrin_msg_type {
    TOVRIN_MSG_START = 0,
    TOVRIN_MSG_STOP = 1,
    TOVRIN_MSG_CHECK_START = 2,
    TOVRIN_MSG_CHECK_STOP = 3,
    TOVRIN_MSG_RESTART = 4,
    TOVRIN_MSG_FAIL = 5,
    TOVRIN_MSG_TEST = 6,
    TOVRIN_MSG_MEMBER_DOWN = 7,
    TOVRIN_MSG_MEMBER_TESTED = 8,
    TOVRIN_MSG_MEMBER_FAILED = 9,
};

// A request from one conn (or the daemon, src null) to another, waiting in
// the instance's message queue.
struct tovrin_msg {
    tovrin_conn *src = nullptr;
    tovrin_conn *dst = nullptr;
    int type = TOVRIN_MSG_START;
};

// The name of a message type, "(unknown)" outside the table.
const char *tovrin_msg_type_name(int type);
