#include "supervise/state.h"

namespace {

const char *const state_names[TOVRIN_N_STATES] = {
    "down",
    "waiting to start",
    "starting",
    "starting up commands",
    "testing",
    "tested",
    "up",
    "waiting to stop",
    "stopping up commands",
    "stopping",
    "starting members",
    "stopping members",
};

// Fill colours by state, in state order: the graph dump's and the timeline
// picture's.
const char *const state_colours[TOVRIN_N_STATES] = {
    "grey",    "#DDDDFF", "#44A4FF", "#3050FF", "#DCFFCC", "#33FF55",
    "#119911", "#FFBBBB", "#F08600", "#FF2222", "#7F40FF", "#FF407F",
};

}  // namespace

const char *tovrin_state_name(int state) {
    if (state < 0 || state >= TOVRIN_N_STATES)
        return "(unknown)";
    return state_names[state];
}

const char *tovrin_state_colour(int state) {
    if (state < 0 || state >= TOVRIN_N_STATES)
        return nullptr;
    return state_colours[state];
}

int tovrin_state_by_name(std::string_view name) {
    for (int state = 0; state < TOVRIN_N_STATES; state++) {
        if (name == state_names[state])
            return state;
    }
    return -1;
}
