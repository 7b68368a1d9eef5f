#pragma once

// A what-if script: the failures and operator actions to play against a
// configuration, one event a line.
//
//   at TIME test|start|stop CONN fails|passes [N]
//   at TIME test|start|stop CONN takes DURATION [N]
//   at TIME test|start|stop|up CONN hangs [N]
//   at TIME up CONN fails|passes [N]
//   at TIME up CONN exits [STATUS]
//   at TIME cmd TEXT
//   at TIME set KEY VALUE
//   at TIME reload FILE
//   end TIME
//
// Times and durations are whole seconds, written bare or with s, m or h. A
// '#' at the start of a word starts a comment, except inside the TEXT of
// cmd and the VALUE of set, which run to the end of the line.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The commands of a conn that answers are given for, as the daemon numbers
// its action types.
enum sim_kind { SIM_START = 0, SIM_STOP = 1, SIM_TEST = 2, SIM_UP = 3, SIM_N_KINDS = 4 };

// What one answer line changes of a kind of command.
enum sim_answer_aspect {
    SIM_ANSWER_STATUS = 0,    // exit status (fails 1, passes 0); for up: 1 exits at once, 0 runs
    SIM_ANSWER_DURATION = 1,  // seconds before it exits
    SIM_ANSWER_HANG = 2,      // 1: never ends on its own and ignores SIGTERM
    SIM_N_ASPECTS = 3,
};

struct sim_answer {
    int aspect = SIM_ANSWER_STATUS;
    long value = 0;
    long runs = -1;  // how many runs it holds for; -1: every run from now on
};

struct sim_event {
    enum verb { ANSWER, UP_EXITS, CMD, SET, RELOAD };
    int line = 0;
    long time = 0;
    verb what = ANSWER;
    int kind = SIM_TEST;  // ANSWER, UP_EXITS
    std::string conn;     // ANSWER, UP_EXITS
    sim_answer answer;    // ANSWER
    int status = 1;       // UP_EXITS
    std::string key;      // SET
    std::string text;     // CMD: the command; SET: the value; RELOAD: the file
    std::string words;    // the event as written, after its time
};

struct sim_script {
    // In time order, events of one time in the order of their lines.
    std::vector<sim_event> events;
    std::optional<long> end;
};

struct sim_script_error {
    int line;
    std::string message;
};

// Parses a script. Reload files are taken relative to dir and must be
// readable now. Fills *script, or returns the first error.
std::optional<sim_script_error> sim_script_parse(std::string_view text, const std::string &dir,
                                                 sim_script *script);

// Seconds of a time or duration ("90", "90s", "5m", "2h"); nullopt when text
// is not one or is longer than ten years.
std::optional<long> sim_time_parse(std::string_view text);
