#pragma once

#include <functional>

struct tovrin_inst;

// Blocks until the system uptime (whole seconds of the uptime file) reaches
// the configured bootdelay, sleeping in steps of ten seconds through
// sleep_for. Returns at once when bootdelay is 0 or the uptime file cannot
// be opened.
void tovrin_boot_delay(tovrin_inst *inst, const std::function<void(unsigned seconds)> &sleep_for);
