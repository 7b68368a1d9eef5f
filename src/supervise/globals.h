#pragma once

#include <cstdint>
#include <memory>

#include "daemon/log_mask.h"

// The settings of the `global` clause.
struct tovrin_globals {
    int32_t bootdelay = 0;  // compared unsigned against the uptime
    int configreloadtimeout = 600;
    int keepalive = 30;  // 0 or less disables the keepalive
    uint64_t default_log_mask = TOVRIN_CONN_LOG_DEFAULT;
    uint64_t instance_log_mask = TOVRIN_INST_LOG_DEFAULT;
};

// A settings record with the defaults, or null after logging.
std::unique_ptr<tovrin_globals> tovrin_globals_new();
