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
