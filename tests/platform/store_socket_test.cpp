#include "platform/store_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/platform_test_util.h"
#include "platform/unique_fd.h"

namespace {

using platform_test::fds_open;
using platform_test::scratch_dir;

constexpr size_t sun_path_size = sizeof(sockaddr_un{}.sun_path);

// A Unix stream socket listening at path; invalid when path does not fit.
unique_fd listener_open(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return unique_fd();
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(fd.get(), 4) != 0)
        return unique_fd();
    return fd;
}

// Sends one byte each way between a and b.
void link_check(int a, int b) {
    char byte = 'p';
    ASSERT_EQ(write(a, &byte, 1), 1);
    ASSERT_EQ(read(b, &byte, 1), 1);
    EXPECT_EQ(byte, 'p');
    byte = 'q';
    ASSERT_EQ(write(b, &byte, 1), 1);
    ASSERT_EQ(read(a, &byte, 1), 1);
    EXPECT_EQ(byte, 'q');
}

// A path of exactly len bytes inside dir.
std::string path_of_length(const scratch_dir &dir, size_t len) {
    std::string path = dir.path() + "/";
    path.append(len - path.size(), 's');
    return path;
}

TEST(StoreSocket, ConnectsToTheListeningStore) {
    scratch_dir dir;
    const std::string path = dir.file("stord.sock");
    unique_fd listener = listener_open(path);
    ASSERT_TRUE(listener);

    int fd = -1;
    ASSERT_EQ(stord_multiple_start_unix(&fd, path.c_str()), 0);
    unique_fd client(fd);
    ASSERT_TRUE(client);
    unique_fd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(peer);
    link_check(client.get(), peer.get());

    int type = 0;
    socklen_t len = sizeof type;
    ASSERT_EQ(getsockopt(client.get(), SOL_SOCKET, SO_TYPE, &type, &len), 0);
    EXPECT_EQ(type, SOCK_STREAM);
    EXPECT_NE(fcntl(client.get(), F_GETFD) & FD_CLOEXEC, 0);

    // The store going away shows up as end-of-file, not as a hang.
    peer.reset();
    char byte;
    EXPECT_EQ(read(client.get(), &byte, 1), 0);
}

// The longest path that fits works; one byte more is refused even when a
// store listens at the path it would be truncated to.
TEST(StoreSocket, PathLengthIsCheckedNotTruncated) {
    scratch_dir dir;
    const std::string longest = path_of_length(dir, sun_path_size - 1);
    unique_fd listener = listener_open(longest);
    ASSERT_TRUE(listener);

    int fd = -1;
    ASSERT_EQ(stord_multiple_start_unix(&fd, longest.c_str()), 0);
    unique_fd client(fd);
    unique_fd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(peer);
    link_check(client.get(), peer.get());

    const std::string too_long = longest + "s";
    fd = -7;
    EXPECT_NE(stord_multiple_start_unix(&fd, too_long.c_str()), 0);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(fd, -7);
    EXPECT_NE(stord_multiple_start_unix(&fd, std::string(4096, 'x').c_str()), 0);
    EXPECT_EQ(fd, -7);
}

TEST(StoreSocket, FailureLeavesTheDescriptorAndLeaksNothing) {
    scratch_dir dir;
    // A socket file whose store has gone refuses connections.
    const std::string gone = dir.file("gone.sock");
    ASSERT_TRUE(listener_open(gone));
    const std::string regular = dir.file("regular");
    platform_test::file_write(regular, "not a socket\n");

    struct failure_case {
        const char *name;
        const char *path;
    };
    const failure_case cases[] = {
        {"nothing at the path", "/nonexistent/stord.sock"},
        {"store gone", gone.c_str()},
        {"not a socket", regular.c_str()},
        {"directory", dir.path().c_str()},
        {"empty path", ""},
        {"no path", nullptr},
    };
    for (const failure_case &c : cases) {
        const auto before = fds_open();
        int fd = 1234;
        EXPECT_NE(stord_multiple_start_unix(&fd, c.path), 0) << c.name;
        EXPECT_EQ(fd, 1234) << c.name;
        EXPECT_EQ(fds_open(), before) << c.name;
    }
}

}  // namespace
