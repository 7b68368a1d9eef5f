#pragma once

struct tovrin_conn;

// What a member asks its group before acting.
enum tovrin_group_request {
    TOVRIN_GROUP_STOP_UP_COMMANDS = 1,
    TOVRIN_GROUP_ENTER_UP = 2,
    TOVRIN_GROUP_START = 5,
};

// 1 when the conn's group allows the move, 0 when it refuses.
int tovrin_conn_check_group(tovrin_conn *conn, int request);
