#pragma once

#include "config/load.h"

struct tovrin_inst;

// Completes a parsed configuration: each parent link gets its child link on
// the other side and the reverse, members learn their group, names nothing
// defines become deaf conns. Then hands the configuration over.
void tovrin_config_fixup(tovrin_inst *inst, tovrin_config_handover handover);

// Start-up hand-over: puts the parsed configuration into force as it is.
void tovrin_config_move(tovrin_inst *inst);
