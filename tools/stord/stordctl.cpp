// stordctl: reads and writes a running stord from the command line.
//
//   stordctl SOCKET_PATH set KEY VALUE [FLAG] | get KEY | del KEY | dump
//                      | wait KEY VALUE [TIMEOUT_MS] | watch KEY
//
// Exit status: 0 done, 1 store unreachable (or get found nothing, or wait
// timed out), 2 usage error.

#include <charconv>
#include <chrono>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "stord/client.h"

namespace {

constexpr int exit_usage = 2;
constexpr int exit_failed = 1;

int usage() {
    std::fprintf(stderr,
                 "usage: stordctl SOCKET_PATH set KEY VALUE [FLAG]\n"
                 "       stordctl SOCKET_PATH get KEY\n"
                 "       stordctl SOCKET_PATH del KEY\n"
                 "       stordctl SOCKET_PATH dump\n"
                 "       stordctl SOCKET_PATH wait KEY VALUE [TIMEOUT_MS]\n"
                 "       stordctl SOCKET_PATH watch KEY\n");
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
    auto deadline = std::chrono::steady_clock::now() + timeout;
    client.subscribe(key);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0)
            return exit_failed;
        auto n = client.next_notification(left);
        if (!n)
            return exit_failed;
        if (n->first == key && n->second == value)
            return 0;
    }
}

// Prints every value key takes until the store goes away or the process is
// killed.
int ctl_watch(stord_client &client, const std::string &key) {
    client.subscribe(key);
    for (;;) {
        auto n = client.next_notification(std::chrono::hours(1));
        if (n && n->first == key) {
            print_line(n->second);
            std::fflush(stdout);
        }
    }
}

int ctl_run(const std::string &socket_path, const std::vector<std::string> &args) {
    const std::string &command = args[0];
    std::size_t n = args.size();
    if (command == "set" && (n == 3 || n == 4)) {
        auto flag = n == 4 ? parse_number<int>(args[3]) : std::optional<int>(1);
        if (!flag)
            return usage();
        stord_client client(socket_path, "stordctl");
        client.set(args[1], args[2], *flag);
        // Leave only once the store applied it, so a command run next sees it.
        client.sync();
        return 0;
    }
    if (command == "get" && n == 2) {
        stord_client client(socket_path, "stordctl");
        auto value = client.get(args[1]);
        if (!value)
            return exit_failed;
        print_line(*value);
        return 0;
    }
    if (command == "del" && n == 2) {
        stord_client client(socket_path, "stordctl");
        client.del(args[1]);
        client.sync();
        return 0;
    }
    if (command == "dump" && n == 1) {
        stord_client client(socket_path, "stordctl");
        for (const auto &[key, value] : client.dump())
            print_line(key + "=" + value);
        return 0;
    }
    if (command == "wait" && (n == 3 || n == 4)) {
        auto ms = n == 4 ? parse_number<long>(args[3]) : std::optional<long>(10000);
        if (!ms || *ms < 0)
            return usage();
        stord_client client(socket_path, "stordctl");
        return ctl_wait(client, args[1], args[2], std::chrono::milliseconds(*ms));
    }
    if (command == "watch" && n == 2) {
        stord_client client(socket_path, "stordctl");
        return ctl_watch(client, args[1]);
    }
    return usage();
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3)
        return usage();
    try {
        return ctl_run(argv[1], std::vector<std::string>(argv + 2, argv + argc));
    } catch (const std::exception &e) {
        std::fprintf(stderr, "stordctl: %s\n", e.what());
        return exit_failed;
    }
}
