#include "command/file_dep.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/log_capture.h"
#include "support/test_inst.h"

namespace {

// Bytes that differ from block to block, so a block read twice or skipped
// changes the checksum; the reference values come from zlib's crc32.
std::string pattern(size_t n) {
    std::string out(n, '\0');
    for (size_t i = 0; i < n; i++)
        out[i] = static_cast<char>((i * 131 + i / 8192 * 7) & 0xFF);
    return out;
}

TEST(FileDep, ChecksumsFilesAcrossBlockBoundaries) {
    test_inst t;
    const struct {
        std::string content;
        uint32_t crc;
    } cases[] = {
        {"123456789", 0xCBF43926u},
        {"", 0},
        {std::string("\0\xff\x80\n\r", 5), 0x7D4C7E5Bu},
        {pattern(8192), 0x0C724C91u},
        {pattern(8193), 0xCB62ABB0u},
        {pattern(3 * 8192 + 17), 0x2951FA77u},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.content.size());
        t.root.write_file("f", c.content);
        std::optional<tovrin_file_dep> dep = tovrin_file_dep_new(t.root.file("f").c_str());
        ASSERT_TRUE(dep.has_value());
        EXPECT_EQ(dep->checksum, c.crc);
    }
}

// A missing file counts as empty without a word; one that cannot be read
// says so on standard error, not in the log.
TEST(FileDep, UnreadableFilesHaveChecksumZero) {
    test_inst t;
    log_capture log;
    testing::internal::CaptureStderr();
    EXPECT_EQ(tovrin_file_dep_new(t.root.file("missing").c_str())->checksum, 0u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(tovrin_file_dep_new(t.root.path().c_str())->checksum, 0u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "error reading file\n");
    EXPECT_FALSE(tovrin_file_dep_new(nullptr).has_value());
    EXPECT_TRUE(log.records().empty());
}

}  // namespace
