#include "support/sandbox.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace {

// log4c's basic layout: "[appender] PRIORITY category - message".
const char message_separator[] = " tovrin - ";

}  // namespace

child_process sandbox::start() const {
    return child_process::start({TOVRIN_SANDBOX_BIN, root_.path()}, "",
                                root_.file("daemon.stderr"));
}

std::vector<std::string> sandbox::log_messages() const {
    std::vector<std::string> messages;
    std::istringstream in(root_.read_file("var/log/tovrin.log"));
    std::string line;
    while (std::getline(in, line)) {
        size_t at = line.find(message_separator);
        if (at != std::string::npos)
            messages.push_back(line.substr(at + sizeof message_separator - 1));
    }
    return messages;
}

std::string sandbox::log_priority(const std::string &message) const {
    std::istringstream in(root_.read_file("var/log/tovrin.log"));
    std::string line;
    while (std::getline(in, line)) {
        size_t at = line.find(message_separator);
        if (at == std::string::npos || line.substr(at + sizeof message_separator - 1) != message)
            continue;
        std::istringstream fields(line);
        std::string appender, priority;
        fields >> appender >> priority;
        return priority;
    }
    return "";
}

bool sandbox::wait_log(const std::string &message, std::chrono::milliseconds timeout) const {
    return wait_until(
        [&] {
            std::vector<std::string> messages = log_messages();
            return std::find(messages.begin(), messages.end(), message) != messages.end();
        },
        timeout);
}

std::optional<pid_t> sandbox::pidfile_pid() const {
    if (!root_.exists("var/run/tovrin.pid"))
        return std::nullopt;
    std::string text = root_.read_file("var/run/tovrin.pid");
    if (text.empty())
        return std::nullopt;
    return static_cast<pid_t>(strtol(text.c_str(), nullptr, 10));
}
