#include "daemon/paths.h"

#include <iterator>

namespace {

struct path_row {
    std::string tovrin_paths::*field;
    const char *fixed;
};

// The one table of fixed paths.
const path_row path_table[] = {
    {&tovrin_paths::config_file, "/etc/config/tovrin.conf"},
    {&tovrin_paths::state_dump_file, "/tmp/tovrin.conf"},
    {&tovrin_paths::graph_dump_file, "/tmp/tovrin.dot"},
    {&tovrin_paths::snapshot_dir, "/var/mnt/storage.usb"},
    {&tovrin_paths::snapshot_marker, "/var/mnt/storage.usb/please-dump-dots"},
    {&tovrin_paths::uptime_file, "/proc/uptime"},
    {&tovrin_paths::run_dir, "/var/run"},
    {&tovrin_paths::store_socket, "/var/run/stord.sock"},
};

const char sandbox_log_file[] = "/var/log/tovrin.log";

tovrin_paths paths_under(const std::string &root) {
    tovrin_paths paths;
    for (const path_row &row : path_table)
        paths.*row.field = root + row.fixed;
    return paths;
}

}  // namespace

tovrin_paths tovrin_paths_production() {
    return paths_under("");
}

tovrin_paths tovrin_paths_sandbox(const std::string &root) {
    std::string base = root;
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    if (base == "/")
        base.clear();
    tovrin_paths paths = paths_under(base);
    paths.log_file = base + sandbox_log_file;
    return paths;
}
