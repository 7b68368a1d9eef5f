#include "support/test_inst.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <log4c/appender.h>
#include <log4c/logging_event.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "stord/client.h"

namespace fs = std::filesystem;

namespace {

// Allocations still to succeed before the planned failure; negative when
// none is planned. While paused (the log capture recording), allocations are
// neither counted nor failed, so the failure always lands in the code under
// test.
long allocations_before_failure = -1;
bool allocation_paused = false;

int capture_append(log4c_appender_t *appender, const log4c_logging_event_t *event) {
    auto *records = static_cast<std::vector<log_record> *>(log4c_appender_get_udata(appender));
    allocation_paused = true;
    records->push_back(log_record{event->evt_priority, event->evt_msg});
    allocation_paused = false;
    return 0;
}

const log4c_appender_type_t capture_type = {"tovrin_test_capture", nullptr, capture_append,
                                            nullptr};

}  // namespace

// Only this throwing form is replaced; every request is passed on to the
// next definition (the sanitizer's or the C++ library's), so allocation and
// release pair up exactly as without it.
void *operator new(std::size_t size) {
    if (!allocation_paused && allocations_before_failure >= 0 && allocations_before_failure-- == 0)
        throw std::bad_alloc();
    using allocate_fn = void *(*)(std::size_t);
    static const auto next = reinterpret_cast<allocate_fn>(dlsym(RTLD_NEXT, "_Znwm"));
    return next != nullptr ? next(size) : throw std::bad_alloc();
}

void allocation_fail_after(long succeeding) {
    allocations_before_failure = succeeding;
}

bool allocation_failure_happened() {
    return std::exchange(allocations_before_failure, -1) < 0;
}

log_capture::log_capture(int priority)
    : setup(tovrin_log_setup::open_custom(&capture_type, &records)) {
    setup.set_priority(priority);
}

strings log_capture::messages() const {
    strings out;
    for (const log_record &record : records)
        out.push_back(record.message);
    return out;
}

temp_dir::temp_dir() {
    const char *base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tovrin-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("mkdtemp " + pattern + ": " + std::strerror(errno));
    path_ = pattern;
}

temp_dir::~temp_dir() {
    std::error_code ec;  // best effort: a leftover directory harms nobody
    fs::remove_all(path_, ec);
}

void temp_dir::write_file(const std::string &rel, const std::string &content) const {
    fs::create_directories(fs::path(file(rel)).parent_path());
    std::ofstream out(file(rel), std::ios::binary | std::ios::trunc);
    if (!out.write(content.data(), static_cast<std::streamsize>(content.size())).flush())
        throw std::runtime_error("cannot write " + file(rel));
}

std::string replaced(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

std::string read_file(const std::string &path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

test_inst::test_inst() : paths(tovrin_paths_sandbox(root.path())) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair) != 0)
        throw std::runtime_error("socketpair failed");
    daemon_end.reset(pair[0]);
    store_end.reset(pair[1]);
    inst.paths = &paths;
    if (tovrin_inst_init(daemon_end.get(), &inst) == nullptr)
        throw std::runtime_error("tovrin_inst_init failed");
    inst.store_out_queue.clear();  // the start-up subscription is not what tests look at
}

test_inst::test_inst(const std::string &config) : test_inst() {
    write_config(config);
    if (load() != 0)
        throw std::runtime_error("the configuration does not load");
}

bool test_inst::dispatch() {
    for (int turns = 0; turns < 1000; turns++) {
        bool quiet = inst.message_queue.empty();
        event_base_loop(inst.base.get(), EVLOOP_NONBLOCK);
        if (quiet && inst.message_queue.empty())
            return true;
    }
    return false;
}

std::chrono::milliseconds scaled(std::chrono::milliseconds bound) {
    static const double scale = [] {
        const char *text = std::getenv("TOVRIN_TEST_TIME_SCALE");
        double value = text != nullptr ? std::atof(text) : 0;
        return value > 0 ? value : 1.0;
    }();
    return std::chrono::milliseconds(static_cast<long>(static_cast<double>(bound.count()) * scale));
}

bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout) {
    for (auto deadline = std::chrono::steady_clock::now() + scaled(timeout); !pred();
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

long status_kib(pid_t pid, const std::string &field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field + ":"))
            return std::stol(line.substr(field.size() + 1));
    }
    return -1;
}

held_range held_over(pid_t pid, std::chrono::milliseconds window) {
    held_range held{INT_MAX, LONG_MAX, 0};
    wait_until(
        [&] {
            int fds = open_fd_count(pid);
            long rss = status_kib(pid, "VmRSS");
            held = {std::min(held.fds_least, fds), std::min(held.rss_least, rss),
                    std::max(held.rss_most, rss)};
            return false;
        },
        window);
    return held;
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
