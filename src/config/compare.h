#pragma once

struct tovrin_conn;

// 1 when the freshly parsed new_conn describes the same thing as old_conn,
// the conn in force, else 0 after one log line naming the first difference.
// Only configured settings count; run-time state, maxrestarts and
// restartdelayfactor do not.
int tovrin_conn_compare(const tovrin_conn *old_conn, const tovrin_conn *new_conn);
