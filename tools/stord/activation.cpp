#include "stord/activation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

// The first descriptor a service manager passes.
constexpr int listen_fds_start = 3;

// A positive decimal, all of text; 0 otherwise.
long env_number(const char *text) {
    if (text == nullptr)
        return 0;
    std::string_view s(text);
    long value = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
    return ec == std::errc() && end == s.data() + s.size() && value > 0 ? value : 0;
}

int socket_option(int fd, int option) {
    int value = 0;
    socklen_t len = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &len) == 0 ? value : -1;
}

}  // namespace

int stord_socket_inherited(std::string *why) {
    why->clear();
    // Meant for another process (a parent that did not clear them) unless
    // LISTEN_PID names this one.
    if (env_number(getenv("LISTEN_PID")) != static_cast<long>(getpid()))
        return -1;
    long count = env_number(getenv("LISTEN_FDS"));
    unsetenv("LISTEN_PID");
    unsetenv("LISTEN_FDS");
    unsetenv("LISTEN_FDNAMES");
    if (count != 1) {
        *why = "the service manager passed " + std::to_string(count) +
               " sockets; stord serves exactly one";
        return -1;
    }
    int fd = listen_fds_start;
    if (socket_option(fd, SO_DOMAIN) != AF_UNIX || socket_option(fd, SO_TYPE) != SOCK_STREAM ||
        socket_option(fd, SO_ACCEPTCONN) != 1) {
        *why = "the socket passed by the service manager is not a listening Unix stream socket";
        return -1;
    }
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0 ||
        fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
        *why = std::string("cannot set up the passed socket: ") + std::strerror(errno);
        return -1;
    }
    return fd;
}
