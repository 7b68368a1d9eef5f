#pragma once

struct tovrin_inst;

// What a successful load hands the parsed configuration to.
using tovrin_config_handover = void (*)(tovrin_inst *inst);

// Parses the configuration file into new_globals and new_conns and hands it
// over; 0, or -1 with the pending configuration discarded and the one in
// force untouched.
int tovrin_config_load(tovrin_inst *inst, tovrin_config_handover handover);
