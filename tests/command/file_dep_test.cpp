#include "command/file_dep.h"

#include "support/test_inst.h"

// Checksums match zlib's crc32 across block boundaries (the pattern differs
// from block to block, so a block read twice or skipped shows, and holds
// every byte value, NUL and those above 0x7f among them). A missing
// file counts as empty without a word; one that cannot be read says so on
// standard error, not in the log.
TEST(FileDep, ChecksumsFilesAcrossBlockBoundaries) {
    temp_dir dir;
    auto pattern = [](size_t n) {
        std::string out(n, '\0');
        for (size_t i = 0; i < n; i++)
            out[i] = static_cast<char>((i * 131 + i / 8192 * 7) & 0xFF);
        return out;
    };
    const std::pair<std::string, uint32_t> cases[] = {
        {"123456789", 0xCBF43926u},
        {"", 0},
        {pattern(8192), 0x0C724C91u},
        {pattern(8193), 0xCB62ABB0u},
        {pattern(3 * 8192 + 17), 0x2951FA77u},
    };
    for (const auto &[content, crc] : cases) {
        dir.write_file("f", content);
        EXPECT_EQ(tovrin_file_dep_new(dir.file("f").c_str()).value().checksum, crc)
            << content.size();
    }
    log_capture log;
    testing::internal::CaptureStderr();
    EXPECT_EQ(tovrin_file_dep_new(dir.file("missing").c_str()).value().checksum, 0u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(tovrin_file_dep_new(dir.path().c_str()).value().checksum, 0u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "error reading file\n");
    EXPECT_FALSE(tovrin_file_dep_new(nullptr).has_value());
    EXPECT_TRUE(log.records.empty());
}
