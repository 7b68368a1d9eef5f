#pragma once

#include <event2/util.h>

struct tovrin_conn;

// The "failover" control command: restarts a group's active member, whose
// failure then moves the group on. Returns 0.
int tovrin_conn_external_failover(tovrin_conn *conn);

// Handlers of "member tested" and "member failed".
void tovrin_group_member_tested(tovrin_conn *group);
void tovrin_group_member_failed(tovrin_conn *group);

// Moves an ordered group to the member after its active one (wrapping), or
// keeps the active member while a reload is in progress.
void tovrin_group_ordered_failover(tovrin_conn *group);

// Moves an ordered group back to next_active_conn_name (the first member
// when none is named).
void tovrin_group_failforward(tovrin_conn *group);

// After a stop or restart has ended a failover before the group's stop could
// finish it: a group already stopping its members had stopped the active one
// alone and now waits for all of them. Where nothing of the daemon's own
// would ever stop the standbys still running, they are told to stop too.
void tovrin_group_abandon_failover(tovrin_conn *group);

// Ordered groups' failover and failforward timers: one-shot, in seconds.
void tovrin_group_arm_failover(tovrin_conn *group, int seconds);
void tovrin_group_arm_failforward(tovrin_conn *group, int seconds);
void tovrin_group_cancel_failover(tovrin_conn *group);
void tovrin_group_cancel_failforward(tovrin_conn *group);

// Timer callbacks; arg is the group.
void tovrin_group_failover_timeout(evutil_socket_t fd, short events, void *arg);
void tovrin_group_failforward_timeout(evutil_socket_t fd, short events, void *arg);
