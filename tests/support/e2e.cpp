#include "support/e2e.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "stord/client.h"

bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout) {
    for (auto deadline = std::chrono::steady_clock::now() + timeout; !pred();
         std::this_thread::sleep_for(10ms)) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
    }
    return true;
}

int open_fd_count(pid_t pid) {
    std::error_code error;
    auto fds = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error);
    return static_cast<int>(std::distance(fds, {}));
}

long rss_kib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:"))
            return std::stol(line.substr(6));
    }
    return -1;
}

child_process::child_process(const strings &argv, const std::string &output) : pid_(fork()) {
    if (pid_ == 0) {
        std::vector<char *> args;
        for (const std::string &arg : argv)
            args.push_back(const_cast<char *>(arg.c_str()));
        args.push_back(nullptr);
        int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        execv(args[0], args.data());
        _exit(127);
    }
}

child_process::~child_process() {
    if (!wait_exit(0ms)) {
        kill(pid_, SIGKILL);
        wait_exit();
    }
}

std::optional<int> child_process::wait_exit(std::chrono::milliseconds timeout) {
    wait_until(
        [&] {
            int status = 0;
            if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_)
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return status_.has_value();
        },
        timeout);
    return status_;
}

e2e_sandbox::e2e_sandbox(bool with_store) {
    for (const char *dir : {"etc/config", "var/run", "var/log", "tmp", "proc"})
        std::filesystem::create_directories(root.file(dir));
    if (with_store) {
        store.emplace(strings{TOVRIN_STORD_BIN, "--socket", root.file("var/run/stord.sock"),
                              "--journal", root.file("journal")},
                      root.file("stord.out"));
        EXPECT_TRUE(wait_until([&] { return root.exists("var/run/stord.sock"); }));
    }
}

void e2e_sandbox::start(const std::string &config, strings wrapper) {
    root.write_file("etc/config/tovrin.conf", config);
    wrapper.insert(wrapper.end(), {TOVRIN_SANDBOX_BIN, root.path()});
    daemon.emplace(wrapper, root.file("daemon.out"));
}

strings e2e_sandbox::statuses(const std::string &conn) const {
    strings out;
    std::istringstream journal(root.read_file("journal"));
    const std::string marker = " set tovrin." + conn + ".status 2 ";
    for (std::string line; std::getline(journal, line);) {
        if (size_t at = line.find(marker); at != std::string::npos)
            out.push_back(line.substr(at + marker.size()));
    }
    return out;
}

bool e2e_sandbox::wait_status(const std::string &conn, const std::string &state,
                              std::chrono::milliseconds timeout) const {
    return wait_until(
        [&] {
            strings seen = statuses(conn);
            return !seen.empty() && seen.back() == state;
        },
        timeout);
}

void e2e_sandbox::set(const std::string &key, const std::string &value) const {
    stord_client client(root.file("var/run/stord.sock"));
    client.set(key, value);
    client.sync();
}

void e2e_sandbox::stop_store() {
    if (store) {
        kill(store->pid(), SIGTERM);
        EXPECT_EQ(store->wait_exit(), 0);
    }
    if (daemon) {
        EXPECT_EQ(daemon->wait_exit(), 1);
        EXPECT_FALSE(root.exists("var/run/tovrin.pid"));
        EXPECT_EQ(root.read_file("daemon.out"), "");
    }
}
