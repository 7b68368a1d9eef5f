// How fast a variable search walks an ancestry, and how long the longest
// search the bound lets through takes, on this machine.
//
// The ancestries are ladders of diamonds: each rung is a conn with two
// parents that share one parent, so a ladder of k rungs has 3k + 1 conns and
// 2^k paths from its foot to its top, and an "all" search for a variable held
// only at the top visits 2^(k + 2) - 3 conns. No conn on the way holds a
// variable, so every visit is as cheap as a visit gets: the rate measured is
// the highest, and the bound's time a floor.
//
//     var_search [MAX_RUNGS]
//
// Prints one line per ladder (rungs, conns visited, the fastest of three
// walks in seconds, visits per second), stopping at the first search the
// bound cuts or at MAX_RUNGS (default 30), then the bound and the time a
// search needs to reach it at the best rate measured: a walk that takes less
// than that is never cut.

#include <log4c/appender.h>
#include <log4c/logging_event.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "command/var.h"
#include "daemon/log.h"
#include "supervise/conn.h"
#include "supervise/globals.h"
#include "supervise/inst.h"

namespace {

// A search logs only when the bound cuts it.
bool search_cut = false;

int cut_note(log4c_appender_t *, const log4c_logging_event_t *) {
    search_cut = true;
    return 0;
}

const log4c_appender_type_t cut_watch = {"var_search_cut", nullptr, cut_note, nullptr};

double seconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void conn_add(tovrin_inst *inst, const std::string &name, const std::string &first_parent,
              const std::string &second_parent) {
    std::unique_ptr<tovrin_conn> conn = tovrin_conn_new(inst, name, 0, 60, 30, 30, 30, 1, -1, 0);
    if (conn == nullptr)
        exit(1);
    tovrin_conn_add_parent(conn.get(), first_parent);
    tovrin_conn_add_parent(conn.get(), second_parent);
    if (first_parent.empty())
        tovrin_conn_add_var(conn.get(), "x", "t");
    inst->conns.push_back(std::move(conn));
}

// A ladder of rungs diamonds whose foot is j0 and whose top, j<rungs>, holds x.
void ladder_build(tovrin_inst *inst, int rungs) {
    for (int i = 0; i < rungs; i++) {
        std::string j = std::to_string(i), next = "j" + std::to_string(i + 1);
        conn_add(inst, "j" + j, "l" + j, "r" + j);
        conn_add(inst, "l" + j, next, "");
        conn_add(inst, "r" + j, next, "");
    }
    conn_add(inst, "j" + std::to_string(rungs), "", "");
}

}  // namespace

int main(int argc, char **argv) {
    const int max_rungs = argc > 1 ? atoi(argv[1]) : 30;
    tovrin_log_setup log = tovrin_log_setup::open_custom(&cut_watch, nullptr);
    double best_rate = 0;
    for (int rungs = 10; rungs <= max_rungs && !search_cut; rungs++) {
        tovrin_inst inst;
        inst.new_globals = tovrin_globals_new();
        ladder_build(&inst, rungs);
        const long visits = (4L << rungs) - 3;
        // The fastest of three: other work on the machine only slows a walk.
        double fastest = 0;
        for (int run = 0; run < 3 && !search_cut; run++) {
            const double start = seconds_now();
            std::optional<std::string> found = tovrin_var_expand(inst.conns.front(), "all:x");
            const double took = seconds_now() - start;
            if (!found.has_value())
                search_cut = true;
            if (run == 0 || took < fastest)
                fastest = took;
        }
        if (search_cut) {
            printf("%2d rungs: %11ld conns, cut by the bound\n", rungs, visits);
            break;
        }
        const double rate = static_cast<double>(visits) / fastest;
        best_rate = rate > best_rate ? rate : best_rate;
        printf("%2d rungs: %11ld conns visited in %7.3f s, %5.1f million a second\n", rungs, visits,
               fastest, rate / 1e6);
    }
    printf("bound: %ld conns, reached after %.2f s at %.1f million a second\n",
           TOVRIN_VAR_SEARCH_MAX_VISITS,
           static_cast<double>(TOVRIN_VAR_SEARCH_MAX_VISITS) / best_rate, best_rate / 1e6);
    return 0;
}
