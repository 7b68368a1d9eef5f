// tovrin-sandbox with the real stord and real commands, seen from outside.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include "support/test_inst.h"

const strings walk_up = {"down",    "waiting to start", "starting", "starting up commands",
                         "testing", "tested",           "up"};

// app's start reports what a command sees: the helpers on its PATH and the
// marker, /dev/null as input, its own process group, its signal state;
// what it writes on standard error goes to its pipe, not the daemon's.
static std::string config(const temp_dir &root) {
    const std::string r = root.path();
    root.write_file("probe", "exec > " + r +
                                 "/env\necho \"$PATH|$RUNNING_UNDER_TOVRIN\"\n"
                                 "readlink /proc/self/fd/0\necho to-the-pipe >&2\n"
                                 "read -r _ _ _ _ g _ < /proc/$$/stat; [ $g = $$ ] && echo lead\n"
                                 "exec grep -E '^Sig(Blk|Ign)' /proc/self/status\n");
    return "conn base\n\tstart sh -c 'touch " + r + "/base.on'\n\ttest test -e " + r +
           "/base.on\n\ttestdelay 0\n\ttestperiod 1\n\ttestthreshold 0\n"
           "conn app\n\tparent base\n\tstart sh " +
           r + "/probe\n\tup sleep 30\n";
}

// Parents come up first; an operator's command restarts only what it names;
// the dumps appear; the daemon ends with its store and takes its pid file.
TEST(Daemon, SupervisesRealCommandsUntilItsStoreGoes) {
    e2e_sandbox s;
    s.root.write_file("var/run/tovrin.pid", "1 left over by a crash\n");
    // Started with SIGINT ignored, as a background job of a shell is: its
    // commands must not inherit that.
    s.start(config(s.root), {"/bin/sh", "-c", "trap '' INT; exec \"$@\"", "sh"});
    ASSERT_TRUE(s.wait_status("app", "up")) << s.log();
    EXPECT_EQ(s.statuses("base"), walk_up);
    EXPECT_EQ(s.statuses("app"), walk_up);
    EXPECT_EQ(s.root.read_file("var/run/tovrin.pid"), std::to_string(s.daemon->pid()) + "\n");
    std::string env = s.root.read_file("env");
    EXPECT_NE(env.find(":/bin/tovrin_helpers|yes\n/dev/null\nlead\n"), std::string::npos) << env;
    EXPECT_NE(env.find("SigBlk:\t0000000000000000\n"), std::string::npos) << env;
    size_t ignored = env.find("SigIgn:\t");
    ASSERT_NE(ignored, std::string::npos) << env;
    EXPECT_EQ(std::stoull(env.substr(ignored + 8, 16), nullptr, 16) & 0x7fffffffu, 0u) << env;

    // An operator's command reaches the daemon through the store.
    s.set("config.tovrin.command", "app,cli,restart");
    ASSERT_TRUE(s.wait_log("external restart command received for app"));
    ASSERT_TRUE(wait_until([&] { return s.statuses("app").size() == walk_up.size() + 10; }));
    EXPECT_EQ(s.statuses("base"), walk_up);

    kill(s.daemon->pid(), SIGUSR1);
    kill(s.daemon->pid(), SIGUSR2);
    ASSERT_TRUE(wait_until([&] { return s.root.read_file("tmp/tovrin.dot").ends_with("}\n"); }));
    ASSERT_TRUE(wait_until([&] {
        return s.root.read_file("tmp/tovrin.conf").ends_with("# No new conns pending merge\n");
    }));
    child_process dot({"/usr/bin/dot", "-Tsvg", "-o", "/dev/null", s.root.file("tmp/tovrin.dot")},
                      s.root.file("dot.out"));
    EXPECT_EQ(dot.wait_exit(), 0);
    EXPECT_EQ(s.root.read_file("dot.out"), "");
    s.stop_store();
}

// One instance at a time; without its store the daemon does not start.
TEST(Daemon, RefusesASecondInstanceAndAMissingStore) {
    e2e_sandbox s;
    s.start("conn a\n");
    ASSERT_TRUE(s.wait_status("a", "up"));
    child_process second({TOVRIN_SANDBOX_BIN, s.root.path()}, s.root.file("second.out"));
    EXPECT_EQ(second.wait_exit(), 255);
    EXPECT_NE(s.log().find("FATAL    tovrin - Another tovrin instance is running, exiting..."),
              std::string::npos);
    EXPECT_EQ(s.root.read_file("var/run/tovrin.pid"), std::to_string(s.daemon->pid()) + "\n");
    s.stop_store();

    s.daemon.reset();
    s.start("conn a\n");
    EXPECT_EQ(s.daemon->wait_exit(), 255);
    EXPECT_TRUE(s.wait_log("could not open stord socket"));
    EXPECT_FALSE(s.root.exists("var/run/tovrin.pid"));
}

// A signal that comes while the configuration is still being read (here the
// load waits on a file dependency that is a pipe) is handled once the loop
// runs: a SIGHUP then reloads, where it would have ended the daemon.
TEST(Daemon, ASignalDuringTheFirstLoadIsHandledOnceTheLoopRuns) {
    e2e_sandbox s;
    const std::string pipe = s.root.file("dependency");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    s.start("conn a\n\tfile-dependency " + pipe + "\n");
    ASSERT_TRUE(s.wait_log("initialising"));
    kill(s.daemon->pid(), SIGHUP);
    // Each load reads the pipe to its end, which a writer that comes and
    // goes makes.
    auto end_pipe = [&] {
        return wait_until(
            [&] { return unique_fd(open(pipe.c_str(), O_WRONLY | O_NONBLOCK)).valid(); });
    };
    ASSERT_TRUE(end_pipe());
    ASSERT_TRUE(s.wait_log("SIGHUP - Reloading Config")) << s.log();
    ASSERT_TRUE(end_pipe());
    ASSERT_TRUE(s.wait_log("Finished Reloading Config")) << s.log();
    ASSERT_TRUE(s.wait_status("a", "up"));
    s.stop_store();
}
