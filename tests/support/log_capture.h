#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "daemon/log.h"

struct log_record {
    int priority;
    std::string message;

    bool operator==(const log_record &other) const {
        return priority == other.priority && message == other.message;
    }
};

inline std::ostream &operator<<(std::ostream &out, const log_record &record) {
    return out << record.priority << " \"" << record.message << "\"";
}

// Routes tovrin_log into memory for as long as it lives, so tests can assert
// messages and priorities byte for byte.
class log_capture {
  public:
    // Captures messages up to priority (info: what the daemon writes).
    explicit log_capture(int priority = TOVRIN_LOG_INFO);
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    const std::vector<log_record> &records() const { return records_; }
    std::vector<std::string> messages() const;

  private:
    std::vector<log_record> records_;
    tovrin_log_setup setup_;
};
