#pragma once

// How the simulated commands of each conn answer: the script's answer lines
// in force, and what is left of those given for a number of runs.

#include <array>
#include <optional>
#include <string>
#include <unordered_map>

#include "sim/script.h"

// What one run of a command does.
struct sim_run {
    std::optional<int> status;  // exit status; nullopt: runs until it is signalled
    long after = 0;             // seconds before it exits
    bool ignores_term = false;  // only SIGKILL ends it
};

class sim_answers {
  public:
    // The answer line takes over its aspect of the conn's commands of kind.
    void set(const std::string &conn, int kind, const sim_answer &answer);

    // What the next run of the conn's command of kind does; a run counts
    // against every answer given for a number of runs.
    sim_run take(const std::string &conn, int kind);

    // Whether every coming run of the conn's commands of kind exits at once
    // with status 0 (within timeout seconds, when not 0): no answer given
    // for a number of runs is left to change that.
    bool steady_pass(const std::string &conn, int kind, long timeout) const;

  private:
    struct held {
        long value = 0;
        long runs = -1;  // runs left; -1: for good
    };
    using aspects = std::array<held, SIM_N_ASPECTS>;

    std::unordered_map<std::string, std::array<aspects, SIM_N_KINDS>> by_conn_;
};
