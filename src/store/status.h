#pragma once

#include <string>

struct tovrin_conn;

// Sets the conn's status key to the name of its current state.
void tovrin_publish_status(tovrin_conn *conn);

// Deletes the conn's status key; for a conn leaving the configuration.
void tovrin_remove_status(tovrin_conn *conn);

// For groups only (records with a group part).
//
// Makes name (empty: none) the group's active member and publishes the
// active member's index and name, then the list of member names.
void tovrin_group_set_active(tovrin_conn *group, std::string name);

// Makes the group's first member active, if it has members, and forgets any
// member being failed over to.
void tovrin_group_reset_active(tovrin_conn *group);

// Publishes the time of a completed failover.
void tovrin_group_publish_failover_timestamp(tovrin_conn *group);
