#include "command/file_dep.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "supervise/conn.h"
#include "supervise/inst.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

// The CRC-32 computed bit by bit, independently of the table.
uint32_t crc32_bitwise(const std::string &bytes) {
    uint32_t c = 0xFFFFFFFFu;
    for (unsigned char b : bytes) {
        c ^= b;
        for (int k = 0; k < 8; k++)
            c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
    }
    return c ^ 0xFFFFFFFFu;
}

// Bytes that differ from block to block, so a block read twice or skipped
// changes the checksum.
std::string pattern(size_t n) {
    std::string out(n, '\0');
    for (size_t i = 0; i < n; i++)
        out[i] = static_cast<char>((i * 131 + i / 8192 * 7) & 0xFF);
    return out;
}

struct file_closer {
    void operator()(FILE *f) const { fclose(f); }
};

TEST(FileCrc32, IndependentCheckAgreesWithTheKnownValues) {
    EXPECT_EQ(crc32_bitwise("123456789"), 0xCBF43926u);
    EXPECT_EQ(crc32_bitwise(""), 0u);
}

TEST(FileCrc32, ChecksumsFilesOfEverySizeAcrossBlockBoundaries) {
    temp_dir dir;
    const struct {
        const char *title;
        std::string content;
    } cases[] = {
        {"check value", "123456789"},
        {"empty", ""},
        {"one byte", "a"},
        {"binary", std::string("\0\xff\x80\n\r", 5)},
        {"one block less a byte", pattern(8191)},
        {"one block", pattern(8192)},
        {"one block and a byte", pattern(8193)},
        {"several blocks", pattern(3 * 8192 + 17)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.title);
        dir.write_file("f", c.content);
        std::unique_ptr<FILE, file_closer> file(fopen(dir.file("f").c_str(), "rb"));
        ASSERT_NE(file, nullptr);
        uint32_t checksum = 0x12345678u;
        testing::internal::CaptureStderr();
        EXPECT_EQ(tovrin_file_crc32(file.get(), &checksum), 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(checksum, crc32_bitwise(c.content));
    }
    dir.write_file("f", "123456789");
    std::optional<tovrin_file_dep> dep = tovrin_file_dep_new(dir.file("f").c_str());
    ASSERT_TRUE(dep.has_value());
    EXPECT_EQ(dep->checksum, 0xCBF43926u);
}

TEST(FileCrc32, ReadErrorGoesToStandardErrorOnly) {
    temp_dir dir;
    // A directory opens for reading, but reading it fails.
    std::unique_ptr<FILE, file_closer> file(fopen(dir.path().c_str(), "rb"));
    ASSERT_NE(file, nullptr);
    log_capture log;
    uint32_t checksum = 0x12345678u;
    testing::internal::CaptureStderr();
    EXPECT_EQ(tovrin_file_crc32(file.get(), &checksum), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "error reading file\n");
    EXPECT_EQ(checksum, 0u);
    EXPECT_TRUE(log.records().empty());

    // As a dependency it counts as empty.
    testing::internal::CaptureStderr();
    std::optional<tovrin_file_dep> dep = tovrin_file_dep_new(dir.path().c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "error reading file\n");
    ASSERT_TRUE(dep.has_value());
    EXPECT_EQ(dep->path, dir.path());
    EXPECT_EQ(dep->checksum, 0u);
    EXPECT_TRUE(log.records().empty());
}

TEST(FileDep, MissingFileHasChecksumZeroWithoutAMessage) {
    temp_dir dir;
    log_capture log;
    testing::internal::CaptureStderr();
    std::optional<tovrin_file_dep> dep = tovrin_file_dep_new(dir.file("missing").c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    ASSERT_TRUE(dep.has_value());
    EXPECT_EQ(dep->path, dir.file("missing"));
    EXPECT_EQ(dep->checksum, 0u);
    EXPECT_TRUE(log.records().empty());
    EXPECT_FALSE(tovrin_file_dep_new(nullptr).has_value());
}

TEST(FileDep, ChecksumFollowsTheContentNotTheFile) {
    temp_dir dir;
    dir.write_file("script", "#!/bin/sh\necho up\n");
    uint32_t before = tovrin_file_dep_new(dir.file("script").c_str())->checksum;
    dir.write_file("script", "#!/bin/sh\necho up\n");
    EXPECT_EQ(tovrin_file_dep_new(dir.file("script").c_str())->checksum, before);
    dir.write_file("script", "#!/bin/sh\necho uq\n");
    EXPECT_NE(tovrin_file_dep_new(dir.file("script").c_str())->checksum, before);
}

class ConnFileDeps : public ::testing::Test {
  protected:
    void SetUp() override {
        inst.base.reset(event_base_new());
        inst.globals = tovrin_globals_new();
        inst.new_globals = tovrin_globals_new();
    }

    tovrin_conn *add(const std::string &name) {
        return inst.conns.push_back(
            tovrin_conn_new(&inst, name, TOVRIN_CONN, 60, 30, 30, 30, 1, -1, 0));
    }

    static std::vector<std::string> paths(const tovrin_conn *conn) {
        std::vector<std::string> out;
        for (const tovrin_file_dep &dep : conn->file_deps)
            out.push_back(dep.path);
        return out;
    }

    tovrin_inst inst;
    temp_dir dir;
};

TEST_F(ConnFileDeps, EachPathIsKeptOnceInTheOrderFirstNamed) {
    dir.write_file("b", "bee");
    dir.write_file("with blank", "123456789");
    tovrin_conn *wan = add("wan");
    tovrin_conn *lan = add("lan");
    const std::string a = dir.file("a"), b = dir.file("b"), blank = dir.file("with blank");
    log_capture log;
    for (const std::string &path : {b, a, b, blank, a})
        tovrin_conn_add_file_dep(wan, path.c_str());
    tovrin_conn_add_file_dep(wan, nullptr);
    tovrin_conn_add_file_dep(lan, b.c_str());
    EXPECT_EQ(paths(wan), (std::vector<std::string>{b, a, blank}));
    EXPECT_EQ(wan->file_deps[0].checksum, crc32_bitwise("bee"));
    EXPECT_EQ(wan->file_deps[1].checksum, 0u);
    EXPECT_EQ(wan->file_deps[2].checksum, 0xCBF43926u);
    // Another conn naming the same path gets its own entry.
    EXPECT_EQ(paths(lan), (std::vector<std::string>{b}));
    EXPECT_EQ(lan->file_deps[0].checksum, crc32_bitwise("bee"));
    EXPECT_TRUE(log.records().empty());

    // The checksum is taken once: naming the path again does not renew it.
    dir.write_file("b", "changed");
    tovrin_conn_add_file_dep(wan, b.c_str());
    EXPECT_EQ(wan->file_deps.size(), 3u);
    EXPECT_EQ(wan->file_deps[0].checksum, crc32_bitwise("bee"));
}

}  // namespace
