#include "daemon/child_env.h"

#include <unistd.h>

#include <cstdlib>
#include <new>
#include <string>

#include "daemon/log.h"

namespace {

const char helpers_dir[] = "/bin/tovrin_helpers";

// The system's default search path, for a daemon started without PATH.
std::string default_path() {
    size_t n = confstr(_CS_PATH, nullptr, 0);
    if (n == 0)
        return "/bin:/usr/bin";
    std::string path(n, '\0');
    confstr(_CS_PATH, path.data(), n);
    path.resize(n - 1);
    return path;
}

}  // namespace

std::string tovrin_child_env_path(const char *current) {
    std::string path = current != nullptr ? current : default_path();
    path += ':';
    path += helpers_dir;
    return path;
}

void tovrin_child_env_extend() {
    try {
        std::string path = tovrin_child_env_path(getenv("PATH"));
        if (setenv("PATH", path.c_str(), 1) != 0)
            tovrin_log(TOVRIN_LOG_ERROR, "failed to add tovrin helpers to path");
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_ERROR, "failed to add tovrin helpers to path");
    }
    if (setenv("RUNNING_UNDER_TOVRIN", "yes", 1) != 0)
        tovrin_log(TOVRIN_LOG_ERROR, "failed to add tovrin markers to path");
}
