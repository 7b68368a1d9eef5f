// The tovrin-sim program: its exit statuses and what it says on each.

#include <gtest/gtest.h>

#include "support/test_inst.h"

namespace {

struct outcome {
    int status;
    std::string out;
};

outcome sim(const temp_dir &dir, strings args) {
    args.insert(args.begin(), TOVRIN_SIM_BIN);
    dir.write_file("out", "");
    child_process p(args, dir.file("out"));
    return {p.wait_exit().value_or(-1), replaced(dir.read_file("out"), dir.path(), "DIR")};
}

TEST(TovrinSim, ExitStatusesAndWhatItSays) {
    temp_dir dir;
    dir.write_file("ok.conf", "conn a\n\tlog none\n");
    dir.write_file("bad.conf", "conn a\n\tbogus 1\n");
    dir.write_file("ok.sim", "end 5\n");
    dir.write_file("wrong.sim", "# fine\nat 5 test a fails\nat 6 test a explodes\n");
    dir.write_file("flap.sim", "at 0 test a fails\n");
    dir.write_file("flap.conf", "conn a\n\ttest t\n\ttestdelay 600\n\tlog none\n");
    const std::string ok = dir.file("ok.sim"), conf = dir.file("ok.conf");
    struct row {
        strings args;
        int status;
        std::string said;  // the end of what it printed, standard error included
    } rows[] = {
        {{ok, conf}, 0, "0.000 state a up\n5.000 end\n"},
        {{"--log", "none,+uptransitions", ok, conf},
         0,
         "0.000 log INFO a is now running successfully\n5.000 end\n"},
        {{dir.file("wrong.sim"), conf},
         2,
         "DIR/wrong.sim:3: test takes fails, passes, takes or hangs\n"},
        {{dir.file("missing.sim"), conf}, 2, "tovrin-sim: cannot read DIR/missing.sim\n"},
        {{ok, dir.file("bad.conf")}, 1, "0.000 end\ntovrin-sim: DIR/bad.conf did not load\n"},
        {{ok, dir.file("none.conf")}, 1, "0.000 end\ntovrin-sim: DIR/none.conf did not load\n"},
        {{"--svg", "/nonexistent/x.svg", ok, conf},
         1,
         "5.000 end\ntovrin-sim: cannot write /nonexistent/x.svg\n"},
        {{"--log", "loud", ok, conf},
         64,
         "tovrin-sim: unknown log mask word in 'loud'\nusage: tovrin-sim [--svg OUT] [--log "
         "MASKS] SCRIPT [FILE]\n"},
        {{}, 64, "usage: tovrin-sim [--svg OUT] [--log MASKS] SCRIPT [FILE]\n"},
        {{"--svg"}, 64, "usage: tovrin-sim [--svg OUT] [--log MASKS] SCRIPT [FILE]\n"},
        {{ok, conf, "extra"}, 64, "usage: tovrin-sim [--svg OUT] [--log MASKS] SCRIPT [FILE]\n"},
        // Restarting every 600 s for good: stopped an hour after the last
        // event, with a note.
        {{dir.file("flap.sim"), dir.file("flap.conf")},
         0,
         "3600.000 end\ntovrin-sim: still changing 3600 s after the last event; stopped there "
         "(give an end to go on)\n"},
    };
    for (const row &r : rows) {
        outcome got = sim(dir, r.args);
        std::string args = join(r.args);
        EXPECT_EQ(got.status, r.status) << args << "\n" << got.out;
        EXPECT_TRUE(got.out.ends_with(r.said)) << args << "\n" << got.out;
    }
    // The picture goes where --svg says.
    EXPECT_EQ(sim(dir, {"--svg", dir.file("a.svg"), ok, conf}).status, 0);
    EXPECT_NE(dir.read_file("a.svg").find("<title>a: up from 0:00 to 0:05</title>"),
              std::string::npos);
}

}  // namespace
