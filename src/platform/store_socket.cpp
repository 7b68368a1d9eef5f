#include "platform/store_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "platform/unique_fd.h"

namespace {

// Finishes a connect() that a signal interrupted: the kernel carries on
// with it, so a second connect() would only report EALREADY.
int connect_finish(int fd) {
    pollfd p{fd, POLLOUT, 0};
    int ready;
    do
        ready = poll(&p, 1, -1);
    while (ready < 0 && errno == EINTR);
    if (ready < 0)
        return -1;
    int error = 0;
    socklen_t len = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0)
        return -1;
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

}  // namespace

int stord_multiple_start_unix(int *fd, const char *socket_path) {
    if (fd == nullptr || socket_path == nullptr || socket_path[0] == '\0') {
        errno = EINVAL;
        return -1;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    size_t len = strnlen(socket_path, sizeof addr.sun_path);
    // The terminating NUL must fit too: some kernels and tools expect it.
    if (len >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(addr.sun_path, socket_path, len + 1);

    unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock)
        return -1;
    if (connect(sock.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        if (errno != EINTR || connect_finish(sock.get()) != 0)
            return -1;
    }
    *fd = sock.release();
    return 0;
}
