#pragma once

#include <array>
#include <cstddef>

struct tovrin_inst;
struct tovrin_conn;

// One line: its first tokens (the keyword first) and the untouched copy of
// the line, from which rest-of-line arguments are taken. No keyword uses
// more than two arguments and later tokens are ignored, so they are not
// kept: splitting a line allocates nothing.
struct config_clause {
    static constexpr size_t max_tokens = 3;

    std::array<const char *, max_tokens> tokens{};
    size_t n_tokens = 0;
    char *line_copy = nullptr;  // the clause may cut it

    // The i-th token, or null past the last.
    const char *arg(size_t i) const { return i < n_tokens ? tokens[i] : nullptr; }
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
