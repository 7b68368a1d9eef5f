#include "support/temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

temp_dir::temp_dir() {
    const char *base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tovrin-test-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (::mkdtemp(buf.data()) == nullptr)
        throw std::runtime_error("mkdtemp " + pattern + ": " + std::strerror(errno));
    path_ = buf.data();
}

temp_dir::~temp_dir() {
    // Best effort: a destructor must not throw, and a leftover directory
    // under /tmp harms nobody.
    std::error_code ec;
    fs::remove_all(path_, ec);
}

std::string temp_dir::file(const std::string &rel) const {
    return path_ + "/" + rel;
}

void temp_dir::make_dirs(const std::string &rel) const {
    fs::create_directories(file(rel));
}

void temp_dir::write_file(const std::string &rel, const std::string &content) const {
    fs::path target = file(rel);
    fs::create_directories(target.parent_path());
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    if (!out)
        throw std::runtime_error("cannot write " + target.string());
}

std::string temp_dir::read_file(const std::string &rel) const {
    std::ifstream in(file(rel), std::ios::binary);
    if (!in)
        return "";
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool temp_dir::exists(const std::string &rel) const {
    std::error_code ec;
    return fs::exists(fs::symlink_status(file(rel), ec));
}
