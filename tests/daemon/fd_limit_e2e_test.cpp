// The daemon's descriptor limit against the pipes of many up commands, with
// real processes under a low starting limit.

#include <signal.h>

#include <filesystem>

#include "support/test_inst.h"

namespace {

// Conns u<from> to u<to - 1>, whose up command writes "LIMIT PID" (its soft
// descriptor limit and its pid) to ran/u<i> under the root, then sleeps.
std::string up_conns(const temp_dir &root, int from, int to) {
    std::string config;
    for (int i = from; i < to; i++) {
        const std::string name = "u" + std::to_string(i);
        config += "conn " + name + "\n\tlog none\n\tup sh -c 'echo $(ulimit -n) $$ > " +
                  root.file("ran/" + name) + "; exec sleep 600'\n";
    }
    return config;
}

// What the up commands wrote, by conn; each one complete. Kills the sleeps
// when it goes, as the daemon leaves its children running when it exits.
struct ran_files {
    explicit ran_files(const temp_dir &r) : root(r) {
        std::filesystem::create_directories(root.file("ran"));
    }
    ~ran_files() {
        for (const auto &[name, line] : read()) {
            pid_t pid = std::stoi(line.substr(line.find(' ') + 1));
            if (pid > 0)
                kill(pid, SIGKILL);
        }
    }
    std::map<std::string, std::string> read() const {
        std::map<std::string, std::string> lines;
        for (const auto &entry : std::filesystem::directory_iterator(root.file("ran"))) {
            std::string text = ::read_file(entry.path().string());
            if (text.ends_with("\n") && text.find(' ') != std::string::npos)
                lines[entry.path().filename().string()] = text.substr(0, text.size() - 1);
        }
        return lines;
    }
    const temp_dir &root;
};

size_t count(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

}  // namespace

// The pipes of 100 up commands do not fit in a soft limit of 128: the daemon
// raises its own, every command runs, and each started with the 128 the
// daemon was started with. A reload that adds 150 conns raises it again. A
// conn with tests counts one command more.
TEST(FdLimit, MoreUpCommandsThanTheStartingLimitAllowsAllRun) {
    e2e_sandbox s;
    ran_files ran(s.root);
    const std::string tested = "conn tested\n\tlog none\n\ttest true\n";
    s.start(tested + up_conns(s.root, 0, 100), {"/usr/bin/prlimit", "--nofile=128:4096", "--"});
    ASSERT_TRUE(wait_until([&] { return ran.read().size() == 100; }, 60s)) << s.log();
    EXPECT_GE(open_fd_count(s.daemon->pid()), 200);
    s.root.write_file("etc/config/tovrin.conf", tested + up_conns(s.root, 0, 250));
    kill(s.daemon->pid(), SIGHUP);
    ASSERT_TRUE(wait_until([&] { return ran.read().size() == 250; }, 60s)) << s.log();
    for (const auto &[name, line] : ran.read())
        EXPECT_EQ(line.substr(0, line.find(' ')), "128") << name;
    const std::string log = s.log();
    EXPECT_EQ(count(log, "descriptor limit raised from 128 to 266\n"), 1u) << log;
    EXPECT_EQ(count(log, "descriptor limit raised from 266 to 566\n"), 1u) << log;
    EXPECT_EQ(count(log, "could not run command"), 0u) << log;
    EXPECT_EQ(count(log, "hard descriptor limit"), 0u) << log;
    s.stop_store();
}

// When even the hard limit is too low, that is said once and the soft limit
// stays at it; the up commands that could not start are retried until
// descriptors free up: once half of the conns are stopped, every other one
// runs.
TEST(FdLimit, UpCommandsThatCouldNotStartRunOnceDescriptorsFreeUp) {
    e2e_sandbox s;
    ran_files ran(s.root);
    s.start(up_conns(s.root, 0, 40), {"/usr/bin/prlimit", "--nofile=64", "--"});
    ASSERT_TRUE(s.wait_log("could not run command sh for conn u"));
    ASSERT_LT(ran.read().size(), 40u);
    for (int i = 0; i < 20; i++)
        s.set("config.tovrin.command", "u" + std::to_string(i) + ",cli,stop");
    auto second_half_runs = [&] {
        std::map<std::string, std::string> lines = ran.read();
        for (int i = 20; i < 40; i++) {
            if (lines.count("u" + std::to_string(i)) == 0)
                return false;
        }
        return true;
    };
    EXPECT_TRUE(wait_until(second_half_runs, 60s)) << s.log();
    kill(s.daemon->pid(), SIGHUP);
    ASSERT_TRUE(s.wait_log("Finished Reloading Config"));
    const std::string log = s.log();
    EXPECT_EQ(count(log,
                    "hard descriptor limit 64 is below the 144 descriptors the conns may "
                    "need\n"),
              1u)
        << log;
    EXPECT_EQ(count(log, "descriptor limit raised"), 0u) << log;
    s.stop_store();
}
