#pragma once

#include <log4c/appender.h>
#include <log4c/category.h>
#include <log4c/layout.h>

// log4c priorities used by the daemon; lower is more severe.
enum {
    TOVRIN_LOG_FATAL = 0,
    TOVRIN_LOG_ERROR = 300,
    TOVRIN_LOG_WARN = 400,
    TOVRIN_LOG_INFO = 600,
    TOVRIN_LOG_DEBUG = 700,
};

// The one logging call. Writes nothing when the "tovrin" category is not set
// up or stands below the message's priority; errno is the same afterwards.
void tovrin_log(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Owns the "tovrin" log4c category and its one appender for as long as it
// lives; tovrin_log writes through the most recently opened one.
class tovrin_log_setup {
  public:
    // Syslog appender.
    static tovrin_log_setup open_syslog();
    // Stream appender appending to path, one line per message with its
    // priority name. Falls back to standard error when path cannot be opened.
    static tovrin_log_setup open_file(const char *path);
    // Any appender type (tests capture messages this way); udata is handed
    // to the appender as is.
    static tovrin_log_setup open_custom(const log4c_appender_type_t *type, void *udata);

    // Messages up to priority are written from now on (info when opened).
    void set_priority(int priority);

    tovrin_log_setup(tovrin_log_setup &&other) noexcept;
    tovrin_log_setup &operator=(tovrin_log_setup &&) = delete;
    tovrin_log_setup(const tovrin_log_setup &) = delete;
    ~tovrin_log_setup();

  private:
    tovrin_log_setup(const log4c_appender_type_t *type, void *udata);

    log4c_category_t *category_ = nullptr;
    log4c_appender_t *appender_ = nullptr;
    log4c_layout_t *layout_ = nullptr;
};
