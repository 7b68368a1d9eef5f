// storectl: reads and writes a running stord from the command line.
//
//   storectl [--socket PATH] set KEY VALUE | get KEY | del KEY | dump
//                          | wait KEY VALUE [TIMEOUT_MS]
//                          | watch PATTERN [--for SECONDS] | cmd TEXT
//                          | status [--watch] [--for SECONDS]
//                          | record FILE | plot FILE OUT.svg
//
// Exit status: 0 done, 1 store unreachable or gone (or get found nothing, or
// wait timed out), 2 usage error.

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "stord/client.h"
#include "stord/stord_fd.h"
#include "stord/storectl_timeline.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr int exit_usage = 2;
constexpr int exit_failed = 1;
// The key the connection manager takes its control commands from.
constexpr const char *command_key = "config.tovrin.command";
// The client name the connection manager gives in its subscriptions.
constexpr const char *daemon_client = "tovrin";
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
                 "       storectl [--socket PATH] status [--watch] [--for SECONDS]\n"
                 "       storectl [--socket PATH] record FILE\n"
                 "       storectl plot FILE OUT.svg\n"
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

using key_values = std::vector<std::pair<std::string, std::string>>;

// What arrived together while watching.
struct watch_batch {
    key_values sets;                // keys matching the pattern, with their new values
    bool sessions_changed = false;  // a client's session began or ended
};

// Asks for sets of keys matching pattern (and, with sessions, for changes of
// client sessions), calls on_start once the store has the request, then
// hands each batch of events that arrive together to on_batch, until SIGINT
// or SIGTERM, or until duration (when given) has passed. Throws when the
// store goes away.
int watch_loop(stord_client &client, const std::string &pattern, bool sessions,
               std::optional<std::chrono::milliseconds> duration,
               const std::function<void()> &on_start,
               const std::function<void(const watch_batch &)> &on_batch) {
    // Blocked before the request goes out, so a signal sent once the store
    // has the watch can no longer kill us with a status other than 0.
    stord_fd signals = signal_fd_open();
    std::optional<clock_type::time_point> deadline;
    if (duration)
        deadline = clock_type::now() + *duration;
    client.watch_pattern(pattern);
    if (sessions)
        client.watch_sessions();
    on_start();
    for (;;) {
        // Whole frames may already sit in the client's buffer, where poll
        // cannot see them.
        watch_batch batch;
        while (auto body = client.next_frame(0ms)) {
            auto type = stord_frame_parse_uint(stord_frame_split(*body, 2)[0]);
            if (type == stord_type_session_event) {
                batch.sessions_changed = true;
            } else if (type == stord_type_notify) {
                auto n = stord_frame_split_notification(*body);
                if (!n)
                    throw std::runtime_error("stord: malformed notification");
                batch.sets.emplace_back(std::move(n->key), std::move(n->value));
            }
        }
        if (!batch.sets.empty() || batch.sessions_changed)
            on_batch(batch);
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

// Prints "KEY VALUE" for every set of a key matching pattern.
int ctl_watch(const std::string &socket_path, const std::string &pattern,
              std::optional<std::chrono::milliseconds> duration) {
    stord_client client(socket_path, "storectl");
    return watch_loop(
        client, pattern, false, duration, [] {},
        [](const watch_batch &batch) {
            for (const auto &[key, value] : batch.sets)
                print_line(key + " " + value);
            std::fflush(stdout);
        });
}

// One conn as the connection manager publishes it.
struct conn_status {
    std::string name;
    std::string state;
    std::string active;       // groups: the active member
    std::string failed_over;  // groups: the last failover, local time
};

// "YYYY-MM-DD HH:MM:SS" in local time for a count of seconds since the
// epoch; the text itself when it is not one.
std::string local_time(const std::string &seconds) {
    auto value = parse_number<long long>(seconds);
    if (!value)
        return seconds;
    time_t t = static_cast<time_t>(*value);
    tm local;
    char text[32];
    if (localtime_r(&t, &local) == nullptr || strftime(text, sizeof text, "%F %T", &local) == 0)
        return seconds;
    return text;
}

// What the store says of the connection manager: its session and its conns.
struct status_view {
    stord_session session;
    std::vector<conn_status> conns;
};

// Every conn whose status key the connection manager's session set (the one
// connected, or else the last one), by name. A key left by an earlier run,
// for a conn the daemon no longer has, is not shown; nor is a group whose
// status key is gone, though its group keys stay in the store.
status_view status_read(stord_client &client) {
    const std::string prefix = "tovrin.", suffix = ".status";
    status_view view;
    std::map<std::string, std::string> keys = client.dump();
    view.session = client.session(daemon_client);
    const std::vector<std::string> &set_by_daemon = view.session.keys;
    for (const auto &[key, value] : keys) {
        if (key.size() <= prefix.size() + suffix.size() || key.compare(0, prefix.size(), prefix) ||
            key.compare(key.size() - suffix.size(), suffix.size(), suffix) ||
            !std::binary_search(set_by_daemon.begin(), set_by_daemon.end(), key))
            continue;
        conn_status c;
        c.name = key.substr(prefix.size(), key.size() - prefix.size() - suffix.size());
        c.state = value;
        auto group_key = [&](const char *what) {
            auto it = keys.find(prefix + c.name + what);
            return it != keys.end() ? it->second : std::string();
        };
        c.active = group_key(".active-connection-name");
        std::string when = group_key(".failover-timestamp");
        if (!when.empty())
            c.failed_over = local_time(when);
        view.conns.push_back(std::move(c));
    }
    return view;
}

// The colour a state is shown in on a terminal.
const char *state_colour(const std::string &state) {
    if (state == "up")
        return "\033[32m";
    if (state == "down")
        return "\033[2m";
    if (state == "stopping" || state == "waiting to stop" || state == "stopping up commands" ||
        state == "stopping members")
        return "\033[31m";
    return "\033[33m";
}

// The table, under a line saying so when the daemon is not connected: then
// each state is what it last said, shown as "was STATE".
void status_print(const status_view &view, bool colour) {
    if (view.session.state == "unknown") {
        print_line(std::string(daemon_client) + " has not connected to the store");
        std::fflush(stdout);
        return;
    }
    bool gone = view.session.state != "connected";
    if (gone)
        print_line(std::string(daemon_client) + " is not connected to the store (gone since " +
                   local_time(std::to_string(view.session.since)) +
                   "); the states below are its last words");
    std::vector<conn_status> conns = view.conns;
    std::size_t name_width = 4, state_width = 5, active_width = 6;
    for (conn_status &c : conns) {
        if (gone)
            c.state = "was " + c.state;
        name_width = std::max(name_width, c.name.size());
        state_width = std::max(state_width, c.state.size());
        active_width = std::max(active_width, c.active.size());
    }
    std::printf("%-*s  %-*s  %-*s  %s\n", static_cast<int>(name_width), "NAME",
                static_cast<int>(state_width), "STATE", static_cast<int>(active_width), "ACTIVE",
                "FAILED OVER");
    for (const conn_status &c : conns) {
        std::string line = c.name + std::string(name_width - c.name.size() + 2, ' ');
        std::string state = c.state + std::string(state_width - c.state.size(), ' ');
        line += colour ? (gone ? "\033[2m" : state_colour(c.state)) + state + "\033[0m" : state;
        if (!c.active.empty() || !c.failed_over.empty())
            line += "  " + c.active + std::string(active_width - c.active.size() + 2, ' ') +
                    c.failed_over;
        while (!line.empty() && line.back() == ' ')
            line.pop_back();
        print_line(line);
    }
    std::fflush(stdout);
}

// Shows every conn's state; with watch, again each time keys change or the
// daemon connects or goes (a
// terminal is redrawn in place, anything else gets one table after another,
// a blank line between).
int ctl_status(const std::string &socket_path, bool watch,
               std::optional<std::chrono::milliseconds> duration) {
    bool terminal = isatty(STDOUT_FILENO) != 0;
    stord_client client(socket_path, "storectl");
    auto draw = [&] {
        status_view view = status_read(client);
        if (watch && terminal)
            std::fputs("\033[H\033[2J", stdout);
        status_print(view, terminal);
    };
    if (!watch) {
        draw();
        return 0;
    }
    // The watch goes in before the first reading, so no change falls
    // between; a reading answers after every set the store has taken.
    return watch_loop(client, "tovrin.*", true, duration, draw, [&](const watch_batch &) {
        if (!terminal)
            print_line("");
        draw();
    });
}

// Takes "--for SECONDS" at args[*i] into duration; false on a usage error.
bool for_option(const std::vector<std::string> &args, std::size_t *i,
                std::optional<std::chrono::milliseconds> *duration) {
    if (*duration || *i + 1 >= args.size())
        return false;
    auto seconds = parse_number<double>(args[++*i]);
    if (!seconds || !std::isfinite(*seconds) || *seconds < 0 || *seconds > max_watch_seconds)
        return false;
    *duration =
        std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(*seconds));
    return true;
}

// Parses status's options and runs it.
int ctl_status_args(const std::string &socket_path, const std::vector<std::string> &args) {
    bool watch = false;
    std::optional<std::chrono::milliseconds> duration;
    for (std::size_t i = 1; i < args.size(); i++) {
        if (args[i] == "--watch" && !watch)
            watch = true;
        else if (args[i] != "--for" || !for_option(args, &i, &duration))
            return usage();
    }
    if (duration && !watch)
        return usage();
    return ctl_status(socket_path, watch, duration);
}

// Parses watch's arguments (the pattern and --for SECONDS, in either order)
// and runs it.
int ctl_watch_args(const std::string &socket_path, const std::vector<std::string> &args) {
    std::optional<std::string> pattern;
    std::optional<std::chrono::milliseconds> duration;
    for (std::size_t i = 1; i < args.size(); i++) {
        if (args[i] == "--for") {
            if (!for_option(args, &i, &duration))
                return usage();
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
    if (command == "status")
        return ctl_status_args(socket_path, args);
    if (command == "record" && n == 2)
        return ctl_record(socket_path, args[1]);
    if (command == "plot" && n == 3)
        return ctl_plot(args[1], args[2]);
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
