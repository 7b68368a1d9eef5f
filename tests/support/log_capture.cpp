#include "support/log_capture.h"

#include "support/alloc_failure.h"

#include <log4c/appender.h>
#include <log4c/logging_event.h>

namespace {

int capture_append(log4c_appender_t *appender, const log4c_logging_event_t *event) {
    auto *records = static_cast<std::vector<log_record> *>(log4c_appender_get_udata(appender));
    allocation_pause pause;
    records->push_back(log_record{event->evt_priority, event->evt_msg});
    return 0;
}

const log4c_appender_type_t capture_type = {"tovrin_test_capture", nullptr, capture_append,
                                            nullptr};

}  // namespace

log_capture::log_capture(int priority)
    : setup_(tovrin_log_setup::open_custom(&capture_type, &records_)) {
    setup_.set_priority(priority);
}

std::vector<std::string> log_capture::messages() const {
    std::vector<std::string> out;
    for (const log_record &record : records_)
        out.push_back(record.message);
    return out;
}
