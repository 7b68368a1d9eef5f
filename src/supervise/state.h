#pragma once

#include <string_view>

// The twelve states of a conn or group.
enum tovrin_state {
    TOVRIN_STATE_DOWN = 0,
    TOVRIN_STATE_WAITING_TO_START = 1,
    TOVRIN_STATE_STARTING = 2,
    TOVRIN_STATE_STARTING_UP_COMMANDS = 3,
    TOVRIN_STATE_TESTING = 4,
    TOVRIN_STATE_TESTED = 5,
    TOVRIN_STATE_UP = 6,
    TOVRIN_STATE_WAITING_TO_STOP = 7,
    TOVRIN_STATE_STOPPING_UP_COMMANDS = 8,
    TOVRIN_STATE_STOPPING = 9,
    TOVRIN_STATE_STARTING_MEMBERS = 10,
    TOVRIN_STATE_STOPPING_MEMBERS = 11,
};

constexpr int TOVRIN_N_STATES = 12;

// The published name of a state, "(unknown)" outside the table.
const char *tovrin_state_name(int state);

// The fill colour the graph dump gives a state; null outside the table.
const char *tovrin_state_colour(int state);

// The state published as name; -1 for a name no state has.
int tovrin_state_by_name(std::string_view name);
