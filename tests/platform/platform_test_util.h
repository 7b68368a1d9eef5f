#pragma once

// Small helpers shared by the platform tests: a private temporary
// directory, whole-file reads and writes, the descriptors this process has
// open, and waiting for a condition with a deadline.

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <thread>

namespace platform_test {

// A fresh directory under /tmp, removed with everything in it when the
// object goes.
class scratch_dir {
  public:
    scratch_dir() {
        char name[] = "/tmp/tovrin-platform-XXXXXX";
        if (mkdtemp(name) != nullptr)
            path_ = name;
        EXPECT_FALSE(path_.empty()) << "mkdtemp failed";
    }
    ~scratch_dir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    scratch_dir(const scratch_dir &) = delete;
    scratch_dir &operator=(const scratch_dir &) = delete;

    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

inline void file_write(const std::string &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    ASSERT_TRUE(out.good()) << path;
}

inline std::string file_read(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The descriptors open in this process, except the one used to list them.
inline std::set<int> fds_open() {
    std::set<int> fds;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr)
        return fds;
    while (dirent *entry = readdir(dir)) {
        if (entry->d_name[0] != '.')
            fds.insert(std::stoi(entry->d_name));
    }
    fds.erase(dirfd(dir));
    closedir(dir);
    return fds;
}

// Polls condition every few milliseconds until it holds or five seconds
// pass; returns whether it held.
inline bool wait_until(const std::function<bool()> &condition) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Reaps pid, waiting at most five seconds; returns its wait status, or -1
// when it did not end in time.
inline int child_reap(pid_t pid) {
    int status = -1;
    bool reaped = wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; });
    return reaped ? status : -1;
}

}  // namespace platform_test
