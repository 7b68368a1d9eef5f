#pragma once

#include <cstdio>
#include <string>

// How a check ends; tovrin-check exits with it.
enum tovrin_check_result {
    TOVRIN_CHECK_CLEAN = 0,     // nothing to report
    TOVRIN_CHECK_WARNINGS = 1,  // the daemon would load it, but something looks wrong
    TOVRIN_CHECK_REFUSED = 2,   // the daemon would refuse it and keep what it has
};

struct tovrin_check_request {
    std::string path;     // the configuration to check
    std::string against;  // when set, the configuration a reload would bring next
    bool dot = false;     // write the dependency graph
};

// Loads request.path with the daemon's own parser and fix-ups, starting
// nothing, and writes to report what an operator should know before a
// reload, a finding a line: "PATH:LINE: TEXT", or "PATH: TEXT" where no
// line applies. The daemon's own messages come first, as it would log them.
// The graph and the reload plan, when asked for, go to out.
int tovrin_config_check(const tovrin_check_request &request, FILE *report, FILE *out);
