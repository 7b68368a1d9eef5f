// storectl: reads and writes a running stord from the command line.
//
//   storectl [--socket PATH] set KEY VALUE | get KEY | del KEY | dump
//                          | wait KEY VALUE [TIMEOUT_MS]
//                          | watch PATTERN [--for SECONDS] | cmd TEXT
//
// Exit status: 0 done, 1 store unreachable or gone (or get found nothing, or
// wait timed out), 2 usage error.

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "stord/client.h"
#include "stord/stord_fd.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr int exit_usage = 2;
constexpr int exit_failed = 1;
// The key the connection manager takes its control commands from.
constexpr const char *command_key = "config.tovrin.command";
// Longer than any watch needs, short enough that the deadline arithmetic
// cannot overflow.
constexpr double max_watch_seconds = 1e9;

int usage() {
    std::fprintf(stderr,
                 "usage: storectl [--socket PATH] set KEY VALUE\n"
                 "       storectl [--socket PATH] get KEY\n"
                 "       storectl [--socket PATH] del KEY\n"
                 "       storectl [--socket PATH] dump\n"
                 "       storectl [--socket PATH] wait KEY VALUE [TIMEOUT_MS]\n"
                 "       storectl [--socket PATH] watch PATTERN [--for SECONDS]\n"
                 "       storectl [--socket PATH] cmd TEXT\n"
                 "PATH defaults to %s.\n",
                 stord_default_socket);
    return exit_usage;
}

template <typename T>
std::optional<T> parse_number(const std::string &text) {
    T value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

void print_line(const std::string &text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
}

// Subscribes to key and returns 0 once a notification carries value (the
// one sent on subscribing covers a key that already holds it), 1 when the
// timeout passes first.
int ctl_wait(stord_client &client, const std::string &key, const std::string &value,
             std::chrono::milliseconds timeout) {
    auto deadline = clock_type::now() + timeout;
    client.subscribe(key);
    for (;;) {
        auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now());
        if (left.count() < 0)
            return exit_failed;
        auto n = client.next_notification(left);
        if (!n)
            return exit_failed;
        if (n->first == key && n->second == value)
            return 0;
    }
}

// A signalfd for SIGINT and SIGTERM, which are blocked from now on so that
// they arrive only through it. Throws when that cannot be set up.
stord_fd signal_fd_open() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0)
        throw std::runtime_error(std::string("sigprocmask: ") + std::strerror(errno));
    stord_fd fd(::signalfd(-1, &set, SFD_CLOEXEC));
    if (!fd)
        throw std::runtime_error(std::string("signalfd: ") + std::strerror(errno));
    return fd;
}

// Prints "KEY VALUE" for every set of a key matching pattern until SIGINT or
// SIGTERM, or until duration (when given) has passed. Throws when the store
// goes away.
int ctl_watch(const std::string &socket_path, const std::string &pattern,
              std::optional<std::chrono::milliseconds> duration) {
    // Blocked before the request goes out, so a signal sent once the store
    // has the watch can no longer kill us with a status other than 0.
    stord_fd signals = signal_fd_open();
    std::optional<clock_type::time_point> deadline;
    if (duration)
        deadline = clock_type::now() + *duration;
    stord_client client(socket_path, "storectl");
    client.watch_pattern(pattern);
    for (;;) {
        // Whole frames may already sit in the client's buffer, where poll
        // cannot see them.
        while (auto n = client.next_notification(0ms)) {
            print_line(n->first + " " + n->second);
            std::fflush(stdout);
        }
        int wait_ms = -1;
        if (deadline) {
            auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - clock_type::now());
            if (left.count() <= 0)
                return 0;
            wait_ms = static_cast<int>(std::min<long long>(left.count(), 60'000));
        }
        pollfd fds[2] = {{client.socket_fd(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
        int ready = ::poll(fds, 2, wait_ms);
        if (ready < 0 && errno != EINTR)
            throw std::runtime_error(std::string("poll: ") + std::strerror(errno));
        if (ready > 0 && (fds[1].revents & POLLIN) != 0)
            return 0;
    }
}

// Parses watch's arguments (the pattern and --for SECONDS, in either order)
// and runs it.
int ctl_watch_args(const std::string &socket_path, const std::vector<std::string> &args) {
    std::optional<std::string> pattern;
    std::optional<std::chrono::milliseconds> duration;
    for (std::size_t i = 1; i < args.size(); i++) {
        if (args[i] == "--for") {
            if (duration || i + 1 >= args.size())
                return usage();
            auto seconds = parse_number<double>(args[++i]);
            if (!seconds || !std::isfinite(*seconds) || *seconds < 0 ||
                *seconds > max_watch_seconds)
                return usage();
            duration = std::chrono::ceil<std::chrono::milliseconds>(
                std::chrono::duration<double>(*seconds));
        } else if (!pattern) {
            pattern = args[i];
        } else {
            return usage();
        }
    }
    if (!pattern)
        return usage();
    return ctl_watch(socket_path, *pattern, duration);
}

// Sets key and returns once the store applied it, so a command run next
// sees it.
int ctl_set(const std::string &socket_path, const std::string &key, const std::string &value) {
    stord_client client(socket_path, "storectl");
    client.set(key, value);
    client.sync();
    return 0;
}

int ctl_run(const std::string &socket_path, const std::vector<std::string> &args) {
    const std::string &command = args[0];
    std::size_t n = args.size();
    if (command == "set" && n == 3)
        return ctl_set(socket_path, args[1], args[2]);
    if (command == "cmd" && n == 2)
        return ctl_set(socket_path, command_key, args[1]);
    if (command == "get" && n == 2) {
        stord_client client(socket_path, "storectl");
        auto value = client.get(args[1]);
        if (!value)
            return exit_failed;
        print_line(*value);
        return 0;
    }
    if (command == "del" && n == 2) {
        stord_client client(socket_path, "storectl");
        client.del(args[1]);
        client.sync();
        return 0;
    }
    if (command == "dump" && n == 1) {
        stord_client client(socket_path, "storectl");
        for (const auto &[key, value] : client.dump())
            print_line(key + "=" + value);
        return 0;
    }
    if (command == "wait" && (n == 3 || n == 4)) {
        auto ms = n == 4 ? parse_number<long>(args[3]) : std::optional<long>(10000);
        if (!ms || *ms < 0)
            return usage();
        stord_client client(socket_path, "storectl");
        return ctl_wait(client, args[1], args[2], std::chrono::milliseconds(*ms));
    }
    if (command == "watch")
        return ctl_watch_args(socket_path, args);
    return usage();
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string socket_path = stord_default_socket;
    std::size_t first = 0;
    if (!args.empty() && args[0] == "--socket") {
        if (args.size() < 2)
            return usage();
        socket_path = args[1];
        first = 2;
    }
    if (first >= args.size())
        return usage();
    try {
        return ctl_run(socket_path, std::vector<std::string>(args.begin() + first, args.end()));
    } catch (const std::exception &e) {
        std::fprintf(stderr, "storectl: %s\n", e.what());
        return exit_failed;
    }
}
