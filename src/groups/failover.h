#pragma once

struct tovrin_conn;

// The "failover" control command: restarts a group's active member, whose
// failure then moves the group on. Returns 0.
int tovrin_conn_external_failover(tovrin_conn *conn);

// Handlers of "member tested" and "member failed".
void tovrin_group_member_tested(tovrin_conn *group);
void tovrin_group_member_failed(tovrin_conn *group);

// Ordered groups' failover and failforward timers.
void tovrin_group_arm_failover(tovrin_conn *group, int seconds);
void tovrin_group_cancel_failover(tovrin_conn *group);
void tovrin_group_cancel_failforward(tovrin_conn *group);
