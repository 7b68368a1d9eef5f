#include "daemon/boot_delay.h"

#include <cstdio>
#include <cstdlib>

#include "supervise/inst.h"

namespace {

constexpr unsigned boot_delay_step = 10;

// Whole seconds of the uptime file's first line; false when it cannot be
// opened.
bool uptime_read(const char *path, unsigned long long *seconds) {
    FILE *file = fopen(path, "re");
    if (file == nullptr)
        return false;
    char line[127] = "";
    if (fgets(line, sizeof line, file) == nullptr)
        line[0] = '\0';
    fclose(file);
    *seconds = strtoull(line, nullptr, 10);
    return true;
}

}  // namespace

void tovrin_boot_delay(tovrin_inst *inst, const std::function<void(unsigned seconds)> &sleep_for) {
    while (inst->globals != nullptr && inst->globals->bootdelay != 0) {
        unsigned long long uptime = 0;
        if (!uptime_read(inst->paths->uptime_file.c_str(), &uptime))
            return;
        if (static_cast<uint32_t>(inst->globals->bootdelay) <= uptime)
            return;
        sleep_for(boot_delay_step);
    }
}
