// Drives and watches the store for the benchmarks. Times are printed as
// CLOCK_MONOTONIC seconds, which the driver compares with its own clock.
//
//   store_probe SOCKET wait STATE=COUNT...   prints "ready" once watching
//       "tovrin.*.status" (counting what the store already holds), then the
//       time at which the counts of conns in each STATE all match
//   store_probe SOCKET set KEY COUNT          sets KEY to 1..COUNT
//   store_probe SOCKET cmd ACTION FIRST COUNT sends "cI,x,ACTION" for
//       I = FIRST .. FIRST+COUNT-1
// The last two print the time before the first request.

#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <unordered_map>

#include "stord/client.h"

namespace {

double now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

int wait_states(stord_client &client, int argc, char **argv) {
    std::map<std::string, long> wanted, counts;
    for (int i = 0; i < argc; i++) {
        std::string arg = argv[i];
        size_t eq = arg.find('=');
        if (eq == std::string::npos)
            return 2;
        wanted[arg.substr(0, eq)] = std::strtol(arg.c_str() + eq + 1, nullptr, 10);
    }
    std::unordered_map<std::string, std::string> state;
    auto note = [&](const std::string &key, const std::string &value) {
        std::string &old = state[key];
        if (!old.empty())
            counts[old]--;
        old = value;
        counts[old]++;
        bool done = true;
        for (const auto &[name, count] : wanted)
            done = done && counts[name] == count;
        return done;
    };
    // Watch first, then read what is there: a change between the two is in
    // both, and the dump, read after it, holds the newer value.
    client.watch_pattern("tovrin.*.status");
    bool done = false;
    for (const auto &[key, value] : client.dump()) {
        if (key.size() > 14 && key.compare(0, 7, "tovrin.") == 0 &&
            key.compare(key.size() - 7, 7, ".status") == 0)
            done = note(key, value);
    }
    std::printf("ready\n");
    std::fflush(stdout);
    while (!done) {
        auto n = client.next_notification(std::chrono::hours(1));
        if (!n)
            return 1;
        done = note(n->first, n->second);
    }
    std::printf("%.6f\n", now());
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3)
        return 2;
    std::string what = argv[2];
    try {
        stord_client client(argv[1], "store_probe");
        if (what == "wait")
            return wait_states(client, argc - 3, argv + 3);
        if (what == "set" && argc == 5) {
            long count = std::strtol(argv[4], nullptr, 10);
            std::printf("%.6f\n", now());
            for (long i = 1; i <= count; i++)
                client.set(argv[3], std::to_string(i));
            client.sync();
            return 0;
        }
        if (what == "cmd" && argc == 6) {
            long first = std::strtol(argv[4], nullptr, 10);
            long count = std::strtol(argv[5], nullptr, 10);
            std::printf("%.6f\n", now());
            for (long i = first; i < first + count; i++)
                client.set("config.tovrin.command",
                           "c" + std::to_string(i) + ",x," + std::string(argv[3]));
            client.sync();
            return 0;
        }
    } catch (const std::exception &e) {
        std::fprintf(stderr, "store_probe: %s\n", e.what());
        return 1;
    }
    return 2;
}
