#include "support/test_inst.h"

// Up to info is written, debug never at the daemon's threshold; errno is the
// same afterwards whether a message went out or not. The sandbox's file has
// one line per message, with its priority.
TEST(Log, WritesUpToInfoAndKeepsErrno) {
    {
        log_capture log;
        errno = ENOENT;
        tovrin_log(TOVRIN_LOG_FATAL, "fatal %d", 1);
        EXPECT_EQ(errno, ENOENT);
        tovrin_log(TOVRIN_LOG_WARN, "warn %s", "two");
        tovrin_log(TOVRIN_LOG_INFO, "info");
        errno = EAGAIN;
        tovrin_log(TOVRIN_LOG_DEBUG, "debug");
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(log.records, (std::vector<log_record>{{TOVRIN_LOG_FATAL, "fatal 1"},
                                                        {TOVRIN_LOG_WARN, "warn two"},
                                                        {TOVRIN_LOG_INFO, "info"}}));
    }
    errno = EINTR;
    tovrin_log(TOVRIN_LOG_FATAL, "nowhere to go");
    EXPECT_EQ(errno, EINTR);
    temp_dir dir;
    {
        tovrin_log_setup setup = tovrin_log_setup::open_file(dir.file("tovrin.log").c_str());
        tovrin_log(TOVRIN_LOG_FATAL, "could not open stord socket");
        tovrin_log(TOVRIN_LOG_DEBUG, "not at this threshold");
        tovrin_log(TOVRIN_LOG_INFO, "initialising");
    }
    EXPECT_EQ(dir.read_file("tovrin.log"),
              "[tovrin] FATAL    tovrin - could not open stord socket\n"
              "[tovrin] INFO     tovrin - initialising\n");
}
