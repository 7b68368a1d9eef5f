#include "daemon/log.h"

#include "daemon/event_slot.h"

#include <log4c/appender_type_stream.h>
#include <log4c/appender_type_syslog.h>
#include <log4c/category.h>
#include <log4c/layout.h>
#include <log4c/layout_type_basic.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace {

// The category that tovrin_log writes to. Logging is process-wide by nature
// (log4c keeps its own registry too); this pointer is set and cleared only by
// tovrin_log_setup, which main holds for the life of the process.
log4c_category_t *active_category = nullptr;

}  // namespace

void event_slot_out_of_memory() {
    tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate memory; event handling abandoned");
}

void tovrin_log(int priority, const char *format, ...) {
    log4c_category_t *category = active_category;
    if (category == nullptr || priority > log4c_category_get_chainedpriority(category))
        return;

    int saved_errno = errno;
    static const log4c_location_info_t location = LOG4C_LOCATION_INFO_INITIALIZER(nullptr);
    va_list args;
    va_start(args, format);
    __log4c_category_vlog(category, &location, priority, format, args);
    va_end(args);
    // Keep log records and any other output of the process in order.
    fflush(nullptr);
    errno = saved_errno;
}

tovrin_log_setup::tovrin_log_setup(const log4c_appender_type_t *type, void *udata) {
    category_ = log4c_category_new("tovrin");
    appender_ = log4c_appender_new("tovrin");
    log4c_appender_set_type(appender_, type);
    if (udata != nullptr)
        log4c_appender_set_udata(appender_, udata);
    layout_ = log4c_layout_new("tovrin");
    log4c_layout_set_type(layout_, &log4c_layout_type_basic);
    log4c_appender_set_layout(appender_, layout_);
    log4c_category_set_appender(category_, appender_);
    log4c_category_set_priority(category_, TOVRIN_LOG_INFO);
    active_category = category_;
}

tovrin_log_setup tovrin_log_setup::open_syslog() {
    return tovrin_log_setup(&log4c_appender_type_syslog, nullptr);
}

tovrin_log_setup tovrin_log_setup::open_file(const char *path) {
    FILE *stream = fopen(path, "ae");
    if (stream == nullptr)
        stream = stderr;
    else
        setvbuf(stream, nullptr, _IOLBF, 0);
    // The stream appender closes its stream when it is deleted.
    return tovrin_log_setup(&log4c_appender_type_stream, stream);
}

tovrin_log_setup tovrin_log_setup::open_custom(const log4c_appender_type_t *type, void *udata) {
    return tovrin_log_setup(type, udata);
}

tovrin_log_setup::tovrin_log_setup(tovrin_log_setup &&other) noexcept
    : category_(other.category_), appender_(other.appender_), layout_(other.layout_) {
    other.category_ = nullptr;
    other.appender_ = nullptr;
    other.layout_ = nullptr;
}

tovrin_log_setup::~tovrin_log_setup() {
    if (category_ == nullptr)
        return;
    if (active_category == category_)
        active_category = nullptr;
    log4c_category_delete(category_);
    log4c_appender_delete(appender_);
    log4c_layout_delete(layout_);
}

void tovrin_log_setup::set_priority(int priority) {
    if (category_ != nullptr)
        log4c_category_set_priority(category_, priority);
}
