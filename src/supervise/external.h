#pragma once

struct tovrin_inst;
struct tovrin_conn;

// Hooks of the control commands; each logs its line when the mask asks for
// it, acts only by a message or on the keepalive timer, and returns 0.
int tovrin_conn_external_stop(tovrin_conn *conn);
int tovrin_conn_external_start(tovrin_conn *conn);
int tovrin_conn_external_restart(tovrin_conn *conn);
int tovrin_external_start_keepalive(tovrin_inst *inst);
int tovrin_external_stop_keepalive(tovrin_inst *inst);
