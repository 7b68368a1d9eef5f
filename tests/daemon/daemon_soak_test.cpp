// A few hundred conns whose tests fail at random, reloads between two
// configurations, operators' commands and dumps, for a bounded time
// (TOVRIN_SOAK_SECONDS, 60 unless set). Afterwards everything is healthy
// again and the daemon holds what it held after warming up.

#include <signal.h>

#include <iterator>
#include <random>
#include <sstream>
#include <thread>

#include "stord/client.h"
#include "support/test_inst.h"

// Chains of ten; the second configuration changes every third chain's
// test period and drops the last conn.
static std::string config(const std::string &root, bool second) {
    std::string text = "global\n\tkeepalive 2\n\tconfigreloadtimeout 20\n";
    for (int i = 0; i < (second ? 199 : 200); i++) {
        text += "conn c" + std::to_string(i) + "\n\tlog none\n\tup sleep 1000\n\ttestdelay 0\n" +
                "\ttestthreshold 0\n\ttestperiod " + (second && i / 10 % 3 == 0 ? "3" : "2") +
                "\n\ttest sh -c '[ ! -e " + root +
                "/flap ] || [ $(od -An -N1 -tu1 /dev/urandom) -lt 230 ]'\n" +
                (i % 10 != 0 ? "\tparent c" + std::to_string(i - 1) + "\n" : "");
    }
    return text;
}

TEST(Soak, FlappingReloadsCommandsAndDumps) {
    const char *limit = getenv("TOVRIN_SOAK_SECONDS");
    const auto soak = std::chrono::seconds(limit != nullptr ? std::atoi(limit) : 60);
    // What the sanitizer keeps of freed memory would hide what the daemon
    // keeps.
    std::string asan = getenv("ASAN_OPTIONS") != nullptr ? getenv("ASAN_OPTIONS") : "";
    setenv("ASAN_OPTIONS", (asan + ":quarantine_size_mb=4").c_str(), 1);
    e2e_sandbox s;
    const std::string r = s.root.path();
    s.start(config(r, false));
    stord_client store(s.root.file("var/run/stord.sock"));
    auto all_up = [&] {
        std::map<std::string, std::string> keys = store.dump();
        return std::count_if(keys.begin(), keys.end(), [](const auto &key) {
                   return key.first.ends_with(".status") && key.second == "up";
               }) == 200;
    };
    ASSERT_TRUE(wait_until(all_up, 120s)) << s.log();
    std::mt19937 random(2026);
    auto churn = [&](std::chrono::steady_clock::duration length) {
        s.root.write_file("flap", "");
        const auto begin = std::chrono::steady_clock::now();
        for (int round = 0; std::chrono::steady_clock::now() - begin < length; round++) {
            switch (random() % 5) {
                case 0:
                    s.root.write_file("etc/config/tovrin.conf", config(r, round % 2));
                    kill(s.daemon->pid(), SIGHUP);
                    break;
                case 1:
                    kill(s.daemon->pid(), random() % 2 ? SIGUSR1 : SIGUSR2);
                    break;
                default:
                    const char *verbs[] = {"start", "stop", "restart", "failover"};
                    store.set("config.tovrin.command", "c" + std::to_string(random() % 200) +
                                                           ",soak," + verbs[random() % 4]);
            }
            std::this_thread::sleep_for(300ms);
        }
        // Healthy again, on the first configuration: the keepalive brings
        // back what the operators stopped, and everything comes up.
        unlink(s.root.file("flap").c_str());
        s.root.write_file("etc/config/tovrin.conf", config(r, false));
        kill(s.daemon->pid(), SIGHUP);
        return wait_until(all_up, 120s);
    };
    // The warm-up runs the same churn, so that what the allocator keeps for
    // reuse (much more under the sanitizer) is already counted.
    ASSERT_TRUE(churn(soak / 3)) << s.log();
    const int warm_fds = open_fd_count(s.daemon->pid());
    const long warm_rss = rss_kib(s.daemon->pid());
    ASSERT_TRUE(churn(soak - soak / 3)) << s.log();
    std::istringstream journal(s.root.read_file("journal"));
    EXPECT_GT(std::count(std::istream_iterator<std::string>(journal), {}, "down"), 400)
        << "the soak flapped too little";
    EXPECT_LE(open_fd_count(s.daemon->pid()), warm_fds);
    EXPECT_LE(rss_kib(s.daemon->pid()), warm_rss + 4 * 1024);
    s.stop_store();
}
