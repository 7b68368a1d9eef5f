#include "platform/pidfile.h"

#include <sys/prctl.h>
#include <unistd.h>

#include "support/test_inst.h"

// A pid file keeps a second instance out only while it names a live process
// running the daemon; a pid reused by another program after a kill leaves a
// stale file that must not block the next start.
TEST(Pidfile, OnlyALiveInstanceHoldsTheFile) {
    temp_dir dir;
    // The kernel names a process after the file it executed, so a link
    // called tovrin to sleep runs as "tovrin".
    const strings programs = {"tovrin", "tovrin-sandbox", "tovrinctl", "sleep", "rin"};
    for (const std::string &name : programs)
        std::filesystem::create_symlink("/bin/sleep", dir.file(name));
    const struct {
        std::string program;
        int valid;
    } cases[] = {
        {"tovrin", 0}, {"tovrin-sandbox", 0}, {"tovrinctl", 1}, {"sleep", 1}, {"rin", 1},
    };
    for (const auto &c : cases) {
        child_process holder({dir.file(c.program), "60"}, "/dev/null");
        const std::string comm = "/proc/" + std::to_string(holder.pid()) + "/comm";
        ASSERT_TRUE(wait_until([&] { return read_file(comm) == c.program + "\n"; }));
        dir.write_file("tovrin.pid", std::to_string(holder.pid()) + "\n");
        EXPECT_EQ(veltrane_pidfile_valid(dir.path().c_str(), "tovrin"), c.valid) << c.program;
    }

    // A process that is gone, a file that is not a pid.
    pid_t gone = 0;
    {
        child_process exited({"/bin/true"}, "/dev/null");
        gone = exited.pid();
        ASSERT_EQ(exited.wait_exit(), 0);
    }
    for (const std::string &text :
         {std::to_string(gone) + "\n", std::string("tovrin\n"), std::string("0\n")}) {
        dir.write_file("tovrin.pid", text);
        EXPECT_EQ(veltrane_pidfile_valid(dir.path().c_str(), "tovrin"), 1) << text;
    }
    std::filesystem::remove(dir.file("tovrin.pid"));
    EXPECT_EQ(veltrane_pidfile_valid(dir.path().c_str(), "tovrin"), 1);
    // Its own pid never keeps a daemon out, though it runs as tovrin.
    char own_name[16] = {};
    prctl(PR_GET_NAME, own_name);
    prctl(PR_SET_NAME, "tovrin");
    dir.write_file("tovrin.pid", std::to_string(getpid()) + "\n");
    EXPECT_EQ(veltrane_pidfile_valid(dir.path().c_str(), "tovrin"), 1);
    prctl(PR_SET_NAME, own_name);

    // Written and removed by its owner only.
    ASSERT_EQ(veltrane_pidfile_create(dir.path().c_str(), "tovrin"), 0);
    EXPECT_EQ(dir.read_file("tovrin.pid"), std::to_string(getpid()) + "\n");
    EXPECT_EQ(veltrane_pidfile_clear(dir.path().c_str(), "tovrin"), 0);
    EXPECT_FALSE(dir.exists("tovrin.pid"));
    dir.write_file("tovrin.pid", "1\n");
    EXPECT_EQ(veltrane_pidfile_clear(dir.path().c_str(), "tovrin"), -1);
    EXPECT_TRUE(dir.exists("tovrin.pid"));
}
