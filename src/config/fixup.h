#pragma once

#include "config/load.h"

struct tovrin_inst;

// Completes a parsed configuration: each parent link gets its child link on
// the other side and the reverse, members learn their group, names nothing
// defines become deaf conns. Then hands the configuration over.
void tovrin_config_fixup(tovrin_inst *inst, tovrin_config_handover handover);

// Start-up hand-over: puts the parsed configuration into force as it is.
void tovrin_config_move(tovrin_inst *inst);

// Appends every pending conn, in order, to the conns in force, each with its
// test timer bound to the instance's loop.
void tovrin_config_adopt_new_conns(tovrin_inst *inst);
