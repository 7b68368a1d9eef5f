#pragma once

struct tovrin_inst;

// Start-up hand-over: puts the parsed configuration into force as it is.
void tovrin_config_move(tovrin_inst *inst);
