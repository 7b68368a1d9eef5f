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

}  // namespace

const char *tovrin_state_name(int state) {
    if (state < 0 || state >= TOVRIN_N_STATES)
        return "(unknown)";
    return state_names[state];
}
