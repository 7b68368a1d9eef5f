#pragma once

struct tovrin_conn;

// The "failover" control command: restarts a group's active member, whose
// failure then moves the group on. Returns 0.
int tovrin_conn_external_failover(tovrin_conn *conn);
