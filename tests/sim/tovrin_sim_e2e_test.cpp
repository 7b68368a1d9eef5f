// The tovrin-sim program: its exit statuses and what it says on each.

#include <gtest/gtest.h>

#include "tools/run_program.h"

namespace {

TEST(TovrinSim, ExitStatusesAndWhatItSays) {
    temp_dir dir;
    dir.write_file("ok.conf", "conn a\n\tlog none\n");
    dir.write_file("loud.conf", "conn a\n");
    dir.write_file("bad.conf", "conn a\n\tbogus 1\n");
    dir.write_file("ok.sim", "end 5\n");
    dir.write_file("wrong.sim", "# fine\nat 5 test a fails\nat 6 test a explodes\n");
    dir.write_file("flap.sim", "at 100 test a takes 5\n");
    dir.write_file("flap.conf",
                   "conn a\n\ttest t\n\ttestperiod 600\n\ttesttimeout 5\n\tlog none\n");
    dir.write_file("long.sim", "end 40h\n");
    dir.write_file("group.conf", "orderedgroup g\n\tmember a\n\tlog none\nconn a\n\tlog none\n");
    const std::string ok = dir.file("ok.sim"), conf = dir.file("ok.conf"),
                      usage = "usage: tovrin-sim [--svg OUT] [--log MASKS] SCRIPT [FILE]\n";
    const struct {
        strings args;
        int status;
        std::string said;  // the end of what it printed, standard error included
    } rows[] = {
        {{ok, conf}, 0, "0.000 state a up\n5.000 end\n"},
        // --log replaces the file's masks, the conns' and the daemon's own.
        {{"--log", "none,+uptransitions", ok, conf},
         0,
         "0.000 log INFO a is now running successfully\n5.000 end\n"},
        {{"--log", "none,+debugmessages", ok, dir.file("loud.conf")},
         0,
         "0.000 log INFO Message from a to a of type check start\n0.000 state a up\n5.000 end\n"},
        {{dir.file("wrong.sim"), conf},
         2,
         "DIR/wrong.sim:3: test takes fails, passes, takes or hangs\n"},
        {{dir.file("missing.sim"), conf}, 2, "tovrin-sim: cannot read DIR/missing.sim\n"},
        {{ok, dir.file("bad.conf")}, 1, "0.000 end\ntovrin-sim: DIR/bad.conf did not load\n"},
        {{"--svg", "/nonexistent/x.svg", ok, conf},
         1,
         "5.000 end\ntovrin-sim: cannot write /nonexistent/x.svg\n"},
        {{"--log", "loud", ok, conf}, 64, "tovrin-sim: unknown log mask word in 'loud'\n" + usage},
        {{}, 64, usage},
        {{"--svg"}, 64, usage},
        {{ok, conf, "extra"}, 64, usage},
        // A test that takes as long as its time-out fails: restarting for
        // good, stopped an hour after the last event, with a note.
        {{dir.file("flap.sim"), dir.file("flap.conf")},
         0,
         "3700.000 end\ntovrin-sim: still changing 3600 s after the last event; stopped there "
         "(give an end to go on)\n"},
        // The picture goes where --svg says.
        {{"--svg", dir.file("a.svg"), dir.file("long.sim"), dir.file("group.conf")},
         0,
         "144000.000 end\n"},
    };
    for (const auto &r : rows) {
        strings argv = r.args;
        argv.insert(argv.begin(), TOVRIN_SIM_BIN);
        auto [status, said] = run_program(argv, dir);
        EXPECT_EQ(status, r.status) << join(r.args) << "\n" << said;
        EXPECT_TRUE(replaced(said, dir.path(), "DIR").ends_with(r.said)) << join(r.args) << "\n"
                                                                         << said;
    }
    // Up all along, the active member all along, on an axis in hours.
    for (const char *part : {"<title>a: up from 0:00 to 40:00:00</title>",
                             "<title>a active in its group</title>", ">6:00:00</text>"})
        EXPECT_NE(dir.read_file("a.svg").find(part), std::string::npos) << part;
}

}  // namespace
