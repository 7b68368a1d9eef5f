#pragma once

struct tovrin_inst;

// Carries out one control command "target,argument,action" written to the
// command key: 0 when a handler ran, -1 (logged) otherwise.
int tovrin_handle_command(tovrin_inst *inst, const char *command);
