#pragma once

#include <memory>

struct tovrin_inst;
struct tovrin_conn;

// Drops a configuration waiting to be merged: cancels the reload timer,
// frees every pending conn and the pending settings.
void tovrin_config_discard_new(tovrin_inst *inst);

// Frees a conn that is in no list any more, with everything it owns: its
// running children are sent SIGTERM and forgotten, its store subscriptions
// cancelled, its timers taken out of the loop. Messages naming it are the
// caller's to drop.
void tovrin_conn_free(std::unique_ptr<tovrin_conn> conn);
