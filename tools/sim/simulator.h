#pragma once

// The simulator: the daemon's own code run on a virtual clock against a
// what-if script. Nothing is spawned and no store runs: the simulator plays
// the children, answering each command as the script says, and the store,
// with the stand-in store's own logic in memory.

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "sim/script.h"
#include "sim/timeline.h"

// The log masks --log asks for, in place of those of the configuration.
struct sim_log_masks {
    uint64_t conn;
    uint64_t instance;
};

// Applies a comma-separated list of mask words to the defaults, each word to
// every mask that knows it ("all", "none,+failover", "+debugmessages");
// nullopt when a word is known to neither.
std::optional<sim_log_masks> sim_log_masks_parse(const std::string &words);

struct sim_settings {
    std::string config_path;
    std::optional<sim_log_masks> masks;
};

// Without an end, a simulation that never settles stops this long after
// the script's last event.
constexpr long SIM_SETTLE_LIMIT = 3600;

struct sim_outcome {
    enum result {
        RAN,             // the script ran to its end, or until nothing was left to happen
        STILL_CHANGING,  // no end was given and it never settled: stopped at the limit
        NOT_LOADED,      // the configuration did not load at start-up
        WALL_TIMER,      // the daemon armed a timer past the virtual clock
    } result = RAN;
    long end = 0;
    std::vector<timeline_event> timeline;  // when kept
};

// Runs script against the configuration, writing the timeline to out line
// by line as it happens; keep_timeline also returns it.
sim_outcome tovrin_simulate(const sim_script &script, const sim_settings &settings, FILE *out,
                            bool keep_timeline);
