#include "supervise/action.h"

#include <new>

#include "daemon/log.h"

std::unique_ptr<tovrin_action> tovrin_action_new(const std::string &command, int type) {
    try {
        auto action = std::make_unique<tovrin_action>();
        action->type = type;
        action->command = command;
        return action;
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate action");
        return nullptr;
    }
}
