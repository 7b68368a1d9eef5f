#include "support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

#include "stord/stord_fd.h"

namespace {

// Runs in the forked child: only async-signal-safe calls until exec. On
// failure the errno goes up the pipe for the parent to report.
[[noreturn]] void child_exec(char *const *argv, const char *out_path, const char *err_path,
                             int report_fd) {
    auto redirect = [](const char *path, int target) {
        int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0 || ::dup2(fd, target) < 0)
            return false;
        ::close(fd);
        return true;
    };
    // Neither the test runner's signal mask nor signals it ignores may leak
    // into the child; exec keeps both.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig = 1; sig < NSIG; sig++)
        ::signal(sig, SIG_DFL);
    if ((out_path == nullptr || redirect(out_path, STDOUT_FILENO)) &&
        (err_path == nullptr || redirect(err_path, STDERR_FILENO)))
        ::execv(argv[0], argv);
    int err = errno;
    ssize_t ignored = ::write(report_fd, &err, sizeof err);
    (void)ignored;
    ::_exit(127);
}

}  // namespace

child_process child_process::start(const std::vector<std::string> &argv,
                                   const std::string &stdout_path, const std::string &stderr_path) {
    if (argv.empty())
        throw std::invalid_argument("child_process::start: empty argv");
    // Everything the child needs is built before fork.
    std::vector<std::string> args = argv;
    std::vector<char *> cargs;
    for (auto &arg : args)
        cargs.push_back(arg.data());
    cargs.push_back(nullptr);

    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
    stord_fd report_read(fds[0]);
    stord_fd report_write(fds[1]);

    pid_t pid = ::fork();
    if (pid < 0)
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    if (pid == 0)
        child_exec(cargs.data(), stdout_path.empty() ? nullptr : stdout_path.c_str(),
                   stderr_path.empty() ? nullptr : stderr_path.c_str(), report_write.get());

    child_process child(pid);
    report_write.reset();
    // The pipe closes on a successful exec with nothing written.
    int err = 0;
    ssize_t n;
    do {
        n = ::read(report_read.get(), &err, sizeof err);
    } while (n < 0 && errno == EINTR);
    if (n == static_cast<ssize_t>(sizeof err)) {
        child.wait_exit(std::chrono::seconds(10));
        throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(err));
    }
    return child;
}

child_process::child_process(child_process &&other) noexcept
    : pid_(std::exchange(other.pid_, -1)), status_(std::exchange(other.status_, std::nullopt)) {}

child_process &child_process::operator=(child_process &&other) noexcept {
    if (this != &other) {
        release();
        pid_ = std::exchange(other.pid_, -1);
        status_ = std::exchange(other.status_, std::nullopt);
    }
    return *this;
}

child_process::~child_process() {
    release();
}

void child_process::release() {
    if (pid_ > 0 && !status_) {
        ::kill(pid_, SIGKILL);
        int raw = 0;
        while (::waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
        }
    }
    pid_ = -1;
    status_.reset();
}

bool child_process::reap() {
    if (status_)
        return true;
    if (pid_ <= 0)
        return false;
    int raw = 0;
    pid_t got;
    do {
        got = ::waitpid(pid_, &raw, WNOHANG);
    } while (got < 0 && errno == EINTR);
    if (got != pid_)
        return false;
    if (WIFEXITED(raw))
        status_ = WEXITSTATUS(raw);
    else if (WIFSIGNALED(raw))
        status_ = 128 + WTERMSIG(raw);
    else
        return false;
    return true;
}

bool child_process::running() {
    return pid_ > 0 && !reap();
}

std::optional<int> child_process::wait_exit(std::chrono::milliseconds timeout) {
    if (pid_ <= 0)
        return std::nullopt;
    wait_until([this] { return reap(); }, timeout, std::chrono::milliseconds(2));
    return status_;
}

void child_process::kill(int sig) {
    if (pid_ > 0 && !status_)
        ::kill(pid_, sig);
}

bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout,
                std::chrono::milliseconds step) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        bool done = pred();
        if (done || std::chrono::steady_clock::now() >= deadline)
            return done;
        std::this_thread::sleep_for(step);
    }
}
