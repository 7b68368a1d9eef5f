#pragma once

#include <cstddef>
#include <vector>

struct tovrin_inst;
struct tovrin_conn;

// One clause line: its tokens (the keyword first) and the untouched copy of
// the line, from which rest-of-line arguments are taken.
struct config_clause {
    const std::vector<const char *> &tokens;
    const char *line_copy;

    // The i-th token, or null past the last.
    const char *arg(size_t i) const { return i < tokens.size() ? tokens[i] : nullptr; }
};

// Applies a clause of the global block to new_globals. 0, or -1 after
// logging why the file is wrong.
int config_global_clause(tovrin_inst *inst, const config_clause &clause);

// Applies a clause of a conn or group definition to conn. 0, or -1 after
// logging why the file is wrong.
int config_definition_clause(tovrin_conn *conn, const config_clause &clause);

// Base-10 conversion as the configuration language defines it: leading
// blanks and a sign accepted, digits up to the first other character, 0
// without digits, saturated to the 32-bit range.
int config_number(const char *text);
