#pragma once

#include <string_view>

struct tovrin_inst;

// Carries out one control command "target,argument,action" written to the
// command key: 0 when a handler ran, -1 otherwise (logged, except when the
// copy of the command cannot be made).
int tovrin_handle_command(tovrin_inst *inst, std::string_view command);
