#include "stord/storectl_timeline.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "sim/timeline.h"
#include "sim/timeline_svg.h"
#include "stord/client.h"
#include "stord/stord_fd.h"

namespace {

using namespace std::chrono_literals;

// The key the connection manager takes its control commands from.
constexpr const char *command_key = "config.tovrin.command";

struct file_closer {
    void operator()(FILE *f) const { fclose(f); }
};

double wall_seconds() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The timeline event a change of key stands for; nullopt for a key the
// timeline does not show.
std::optional<timeline_event> event_of(double time, const std::string &key,
                                       const std::string &value) {
    const std::string prefix = "tovrin.", suffix = ".status";
    if (key == command_key)
        return timeline_event{time, "cmd", value};
    if (!key.starts_with(prefix))
        return std::nullopt;
    if (key.size() > prefix.size() + suffix.size() && key.ends_with(suffix))
        return timeline_event{
            time, "state",
            key.substr(prefix.size(), key.size() - prefix.size() - suffix.size()) + " " + value};
    return timeline_event{time, "set", key + " " + value};
}

void append(FILE *out, const timeline_event &event) {
    std::string line = timeline_format(event) + "\n";
    if (fwrite(line.data(), 1, line.size(), out) != line.size() || fflush(out) != 0)
        throw std::runtime_error(std::string("cannot write the timeline: ") + strerror(errno));
}

}  // namespace

int ctl_record(const std::string &socket_path, const std::string &file) {
    std::unique_ptr<FILE, file_closer> out(fopen(file.c_str(), "ae"));
    if (!out) {
        fprintf(stderr, "storectl: cannot write %s: %s\n", file.c_str(), strerror(errno));
        return 1;
    }
    // Blocked before the watch goes out, so an interruption once recording
    // has begun always ends it cleanly.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0)
        throw std::runtime_error(std::string("sigprocmask: ") + strerror(errno));
    stord_fd signals(::signalfd(-1, &set, SFD_CLOEXEC));
    if (!signals)
        throw std::runtime_error(std::string("signalfd: ") + strerror(errno));

    stord_client client(socket_path, "storectl");
    client.watch_pattern("tovrin.*");
    client.watch_pattern(command_key);
    // The watches are in before the reading, so no change falls between;
    // the command key's old value is no command of this recording.
    double start = wall_seconds();
    for (const auto &[key, value] : client.dump()) {
        if (key != command_key) {
            if (auto event = event_of(start, key, value))
                append(out.get(), *event);
        }
    }
    for (;;) {
        while (auto n = client.next_notification(0ms)) {
            if (auto event = event_of(wall_seconds(), n->first, n->second))
                append(out.get(), *event);
        }
        pollfd fds[2] = {{client.socket_fd(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
        int ready = ::poll(fds, 2, -1);
        if (ready < 0 && errno != EINTR)
            throw std::runtime_error(std::string("poll: ") + strerror(errno));
        if (ready > 0 && (fds[1].revents & POLLIN) != 0) {
            append(out.get(), timeline_event{wall_seconds(), "end", ""});
            return 0;
        }
    }
}

int ctl_plot(const std::string &file, const std::string &out) {
    std::ifstream in(file);
    if (!in) {
        fprintf(stderr, "storectl: cannot read %s\n", file.c_str());
        return 1;
    }
    std::vector<timeline_event> events = timeline_read(in);
    if (events.empty()) {
        fprintf(stderr, "storectl: no timeline in %s\n", file.c_str());
        return 1;
    }
    timeline_picture picture;
    picture.title = "storectl plot " + file;
    if (!timeline_svg_write(events, picture, out)) {
        fprintf(stderr, "storectl: cannot write %s\n", out.c_str());
        return 1;
    }
    return 0;
}
