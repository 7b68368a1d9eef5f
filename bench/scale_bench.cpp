// Drives one instance with N conns through what an appliance does at scale:
// load, bring everything up, reload unchanged, reload with one edit, reload
// with a tenth of the conns removed, and reports time and memory against
// targets. Exit status 1 when a target is missed.

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "config/reload.h"
#include "supervise/conn.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"
#include "support/test_inst.h"

namespace {

using clock_type = std::chrono::steady_clock;

// Chains of ten conns (each the parent of the next), and every fiftieth
// chain head an ordered group of two.
std::string config_text(int n, int edited, int keep_every) {
    std::string text = "global\n\tkeepalive 60\n";
    for (int i = 0; i < n; i++) {
        if (keep_every > 1 && i % keep_every == keep_every - 1 && i % 10 == 9)
            continue;
        text += "conn c" + std::to_string(i) + "\n";
        if (i % 10 != 0)
            text += "\tparent c" + std::to_string(i - 1) + "\n";
        text += "\tvar name c" + std::to_string(i) + "\n";
        if (i == edited)
            text += "\ttestperiod 5\n";
    }
    for (int g = 0; g * 500 < n; g++) {
        text += "orderedgroup g" + std::to_string(g) + "\n\tmember c" + std::to_string(g * 500) +
                "\n\tmember c" + std::to_string(g * 500 + 10) + "\n";
    }
    return text;
}

void settle(test_inst &t) {
    for (int turns = 0; turns < 100000; turns++) {
        char buf[65536];
        while (read(t.store_end.get(), buf, sizeof buf) > 0) {
        }
        t.inst.store_out_queue.clear();
        t.inst.store_tx_state = 0;
        if (t.inst.message_queue.empty() && !t.inst.reload_check_event.pending())
            break;
        event_base_loop(t.inst.base.get(), EVLOOP_NONBLOCK);
    }
}

int count_up(test_inst &t) {
    int up = 0;
    for (const tovrin_conn &conn : t.inst.conns)
        up += conn.current_state == TOVRIN_STATE_UP;
    return up;
}

int failures = 0;

void report(const char *what, double seconds, double target) {
    bool ok = seconds <= target;
    failures += !ok;
    std::printf("%-40s %8.3f s  (target %.1f s) %s\n", what, seconds, target, ok ? "ok" : "MISSED");
}

double timed(const std::function<void()> &step) {
    auto start = clock_type::now();
    step();
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

}  // namespace

int main(int argc, char **argv) {
    int n = argc > 1 ? std::atoi(argv[1]) : 10000;
    if (n < 20)
        n = 20;
    test_inst t;

    t.write_config(config_text(n, -1, 0));
    report("load", timed([&] { t.load(); }), 2.0);
    report("start all and settle", timed([&] {
               for (tovrin_conn &conn : t.inst.conns) {
                   if (conn.children.empty())
                       tovrin_conn_deliver_message(&t.inst, nullptr, &conn, 0);
               }
               settle(t);
           }),
           5.0);
    std::printf("%-40s %8d of %zu\n", "conns up", count_up(t), t.inst.conns.size());

    report("reload, nothing changed", timed([&] {
               tovrin_config_sighup(SIGHUP, EV_SIGNAL, &t.inst);
               settle(t);
           }),
           3.0);
    t.write_config(config_text(n, n / 2, 0));
    report("reload, one conn changed", timed([&] {
               tovrin_config_sighup(SIGHUP, EV_SIGNAL, &t.inst);
               settle(t);
           }),
           3.0);
    t.write_config(config_text(n, n / 2, 20));
    report("reload, a tenth of the chains cut", timed([&] {
               tovrin_config_sighup(SIGHUP, EV_SIGNAL, &t.inst);
               settle(t);
           }),
           10.0);
    std::printf("%-40s %8d of %zu\n", "conns up", count_up(t), t.inst.conns.size());
    if (t.inst.reloading_config) {
        std::printf("reload did not finish\n");
        failures++;
    }

    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    double mib = static_cast<double>(usage.ru_maxrss) / 1024.0;
    bool ok = mib <= 256.0;
    failures += !ok;
    std::printf("%-40s %8.1f MiB (target 256 MiB) %s\n", "peak resident memory", mib,
                ok ? "ok" : "MISSED");
    return failures == 0 ? 0 : 1;
}
