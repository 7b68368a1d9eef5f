#pragma once

struct tovrin_conn;

// Message handlers: each moves the conn one step on, by its state.
void tovrin_conn_start(tovrin_conn *conn);
void tovrin_conn_stop(tovrin_conn *conn);
void tovrin_conn_check_start(tovrin_conn *conn);
void tovrin_conn_check_stop(tovrin_conn *conn);
void tovrin_conn_restart(tovrin_conn *conn);
void tovrin_group_stop(tovrin_conn *group);
void tovrin_group_member_down(tovrin_conn *group);

// Ends a failover before the group's stop could finish it, keeping the
// active member. A group already stopping its members had stopped the active
// one alone; the standbys still running are told to stop as well, since the
// group now waits for all of them.
void tovrin_group_abandon_failover(tovrin_conn *group);
