#include "supervise/globals.h"

#include <new>

#include "daemon/log.h"

std::unique_ptr<tovrin_globals> tovrin_globals_new() {
    try {
        return std::make_unique<tovrin_globals>();
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate tovrin globals");
        return nullptr;
    }
}
