#include "daemon/boot_delay.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "supervise/inst.h"
#include "support/temp_dir.h"

namespace {

struct boot_delay_case {
    const char *name;
    int32_t bootdelay;
    double uptime;  // negative: no uptime file
    std::vector<unsigned> expected_sleeps;
};

// Each sleep advances the uptime file by the time slept, as the real clock
// would, so the loop's reading of the file is exercised for real.
TEST(BootDelay, WaitsInTenSecondStepsUntilTheUptimeReachesTheDelay) {
    const boot_delay_case cases[] = {
        {"no delay reads nothing", 0, -1, {}},
        {"missing uptime file ends the wait", 120, -1, {}},
        {"already past", 100, 150.2, {}},
        {"exactly reached", 120, 120.0, {}},
        {"95.7 against 120", 120, 95.7, {10, 10, 10}},
        {"fraction ignored", 120, 119.99, {10}},
        // Compared unsigned: a negative delay is a very long one; the fake
        // clock stops it by removing the file.
        {"negative delay", -1, 5, {10, 10}},
    };
    for (const boot_delay_case &c : cases) {
        temp_dir dir;
        tovrin_paths paths = tovrin_paths_sandbox(dir.path());
        tovrin_inst inst;
        inst.paths = &paths;
        inst.globals = tovrin_globals_new();
        inst.globals->bootdelay = c.bootdelay;
        double uptime = c.uptime;
        auto write_uptime = [&] {
            char text[64];
            snprintf(text, sizeof text, "%.2f 1234.56\n", uptime);
            dir.write_file("proc/uptime", text);
        };
        if (uptime >= 0)
            write_uptime();

        std::vector<unsigned> sleeps;
        tovrin_boot_delay(&inst, [&](unsigned seconds) {
            sleeps.push_back(seconds);
            uptime += seconds;
            if (sleeps.size() >= 2 && c.bootdelay < 0)
                std::remove(dir.file("proc/uptime").c_str());
            else
                write_uptime();
            ASSERT_LT(sleeps.size(), 100u) << c.name;
        });
        EXPECT_EQ(sleeps, c.expected_sleeps) << c.name;
    }
}

TEST(BootDelay, ReadsTheDelayAgainAfterEverySleep) {
    temp_dir dir;
    tovrin_paths paths = tovrin_paths_sandbox(dir.path());
    dir.write_file("proc/uptime", "10.00 20.00\n");
    tovrin_inst inst;
    inst.paths = &paths;
    inst.globals = tovrin_globals_new();
    inst.globals->bootdelay = 1000;
    int sleeps = 0;
    tovrin_boot_delay(&inst, [&](unsigned) {
        if (++sleeps == 2)
            inst.globals->bootdelay = 0;
    });
    EXPECT_EQ(sleeps, 2);
}

}  // namespace
