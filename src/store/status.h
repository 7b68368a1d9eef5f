#pragma once

struct tovrin_conn;

// Sets the conn's status key to the name of its current state.
void tovrin_publish_status(tovrin_conn *conn);
