#include "platform/pidfile.h"

#include <sys/prctl.h>
#include <unistd.h>

#include "support/test_inst.h"

// A pid file keeps a second instance out only while it names a live process
// running the daemon; a pid reused by another program after a kill leaves a
// stale file that must not block the next start.
TEST(Pidfile, OnlyALiveInstanceHoldsTheFile) {
    temp_dir dir;
    const char *run = dir.path().c_str();
    auto valid_with = [&](const std::string &text) {
        dir.write_file("tovrin.pid", text);
        return veltrane_pidfile_valid(run, "tovrin");
    };
    // The kernel names a process after the file it executed, so a link
    // called tovrin to sleep runs as "tovrin".
    const std::pair<const char *, int> programs[] = {
        {"tovrin", 0}, {"tovrin-sandbox", 0}, {"tovrinctl", 1}, {"sleep", 1}, {"rin", 1}};
    for (auto [program, valid] : programs) {
        std::filesystem::create_symlink("/bin/sleep", dir.file(program));
        child_process holder({dir.file(program), "60"}, "/dev/null");
        const std::string comm = "/proc/" + std::to_string(holder.pid()) + "/comm";
        ASSERT_TRUE(wait_until([&] { return read_file(comm) == program + std::string("\n"); }));
        // The newline at the end is optional.
        EXPECT_EQ(valid_with(std::to_string(holder.pid())), valid) << program;
    }

    // A process that is gone, a file that is not a pid, no file.
    child_process exited({"/bin/true"}, "/dev/null");
    ASSERT_EQ(exited.wait_exit(), 0);
    for (const std::string &text :
         {std::to_string(exited.pid()) + "\n", std::string("tovrin\n"), std::string("0\n")})
        EXPECT_EQ(valid_with(text), 1) << text;
    std::filesystem::remove(dir.file("tovrin.pid"));
    EXPECT_EQ(veltrane_pidfile_valid(run, "tovrin"), 1);
    // Its own pid never keeps a daemon out, though it runs as tovrin.
    char own_name[16] = {};
    prctl(PR_GET_NAME, own_name);
    prctl(PR_SET_NAME, "tovrin");
    EXPECT_EQ(valid_with(std::to_string(getpid()) + "\n"), 1);
    prctl(PR_SET_NAME, own_name);

    // Written, readable by all, and removed by its owner only, in a
    // directory it is given; one that cannot be put in place leaves nothing.
    EXPECT_EQ(veltrane_pidfile_create("", "tovrin"), -1);
    std::filesystem::remove(dir.file("tovrin.pid"));
    std::filesystem::create_directory(dir.file("tovrin.pid"));
    EXPECT_EQ(veltrane_pidfile_create(run, "tovrin"), -1);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 6);
    std::filesystem::remove(dir.file("tovrin.pid"));
    ASSERT_EQ(veltrane_pidfile_create(run, "tovrin"), 0);
    EXPECT_EQ(dir.read_file("tovrin.pid"), std::to_string(getpid()) + "\n");
    EXPECT_EQ(std::filesystem::status(dir.file("tovrin.pid")).permissions(),
              static_cast<std::filesystem::perms>(0644));
    EXPECT_EQ(veltrane_pidfile_clear(run, "tovrin"), 0);
    EXPECT_FALSE(dir.exists("tovrin.pid"));
    dir.write_file("tovrin.pid", "1\n");
    EXPECT_EQ(veltrane_pidfile_clear(run, "tovrin"), -1);
    EXPECT_TRUE(dir.exists("tovrin.pid"));
}
