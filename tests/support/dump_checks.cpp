#include "support/dump_checks.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include "support/child_process.h"

namespace {

// The dot program on PATH, or "" when there is none.
std::string dot_program() {
    const char *path = getenv("PATH");
    std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        std::string candidate = (dir.empty() ? "." : dir) + "/dot";
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return "";
}

}  // namespace

void expect_golden(const std::string &path, const std::string &text) {
    if (getenv("TOVRIN_UPDATE_GOLDEN") != nullptr) {
        std::ofstream(path, std::ios::binary) << text;
        return;
    }
    std::ifstream in(path, std::ios::binary);
    ASSERT_TRUE(in) << "missing golden file " << path;
    std::string golden((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, golden) << "golden file " << path;
}

void expect_renders(const std::string &file, const temp_dir &scratch) {
    std::string dot = dot_program();
    ASSERT_FALSE(dot.empty()) << "graphviz's dot is not installed";
    std::string errors = scratch.file("dot.stderr");
    std::remove(errors.c_str());
    child_process run = child_process::start({dot, "-Tsvg", "-o", "/dev/null", file}, "", errors);
    EXPECT_EQ(run.wait_exit(std::chrono::seconds(20)), 0) << file;
    EXPECT_EQ(scratch.read_file("dot.stderr"), "") << file;
}

bool is_recent_asctime(const std::string &text) {
    static const std::regex shape(
        "(Sun|Mon|Tue|Wed|Thu|Fri|Sat) [A-Z][a-z]{2} [ 123][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} "
        "[0-9]{4}\n");
    if (!std::regex_match(text, shape))
        return false;
    tm written{};
    if (strptime(text.c_str(), "%a %b %d %H:%M:%S %Y", &written) == nullptr)
        return false;
    written.tm_isdst = -1;
    return std::abs(difftime(time(nullptr), mktime(&written))) < 60;
}
