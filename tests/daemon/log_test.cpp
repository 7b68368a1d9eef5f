#include "daemon/log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

TEST(Log, WritesUpToInfoAndDropsDebug) {
    log_capture log;
    tovrin_log(TOVRIN_LOG_FATAL, "fatal %d", 1);
    tovrin_log(TOVRIN_LOG_ERROR, "error %s", "two");
    tovrin_log(TOVRIN_LOG_WARN, "warn");
    tovrin_log(TOVRIN_LOG_INFO, "info");
    tovrin_log(TOVRIN_LOG_DEBUG, "debug is never written at the default threshold");
    const std::vector<log_record> expected = {
        {TOVRIN_LOG_FATAL, "fatal 1"},
        {TOVRIN_LOG_ERROR, "error two"},
        {TOVRIN_LOG_WARN, "warn"},
        {TOVRIN_LOG_INFO, "info"},
    };
    EXPECT_EQ(log.records(), expected);
}

TEST(Log, PreservesErrnoWhetherWrittenOrNot) {
    log_capture log;
    errno = ENOENT;
    tovrin_log(TOVRIN_LOG_FATAL, "written");
    EXPECT_EQ(errno, ENOENT);
    errno = EAGAIN;
    tovrin_log(TOVRIN_LOG_DEBUG, "dropped");
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.records().size(), 1u);
}

TEST(Log, NothingHappensWithoutACategory) {
    errno = EINTR;
    tovrin_log(TOVRIN_LOG_FATAL, "nowhere to go");
    EXPECT_EQ(errno, EINTR);
}

TEST(Log, FileSinkWritesOneLinePerMessageWithItsPriority) {
    temp_dir dir;
    std::string path = dir.file("tovrin.log");
    {
        tovrin_log_setup setup = tovrin_log_setup::open_file(path.c_str());
        tovrin_log(TOVRIN_LOG_FATAL, "could not open stord socket");
        tovrin_log(TOVRIN_LOG_INFO, "initialising");
        tovrin_log(TOVRIN_LOG_DEBUG, "not at this threshold");
    }
    std::ifstream in(path);
    std::string first, second, third;
    std::getline(in, first);
    std::getline(in, second);
    EXPECT_FALSE(std::getline(in, third));
    EXPECT_NE(first.find("FATAL"), std::string::npos) << first;
    EXPECT_NE(first.find(" - could not open stord socket"), std::string::npos) << first;
    EXPECT_NE(second.find("INFO"), std::string::npos) << second;
    EXPECT_NE(second.find(" - initialising"), std::string::npos) << second;
}

}  // namespace
