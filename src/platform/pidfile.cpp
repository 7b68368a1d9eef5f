#include "platform/pidfile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace {

// "<run_dir>/<name>.pid"; empty when either part is missing.
std::string pidfile_path(const char *run_dir, const char *name) {
    if (run_dir == nullptr || name == nullptr || run_dir[0] == '\0' || name[0] == '\0')
        return {};
    std::string path(run_dir);
    path += '/';
    path += name;
    path += ".pid";
    return path;
}

// The pid named by the file at path; 0 when it cannot be read or does not
// hold exactly a positive decimal pid and an optional newline. 0 and
// negative values are refused because kill() would read them as process
// groups.
pid_t pidfile_read(const std::string &path) {
    unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!fd)
        return 0;
    // Longer than any pid and its newline, so an oversized file is seen as
    // one rather than read as its first digits.
    char text[32];
    size_t len = 0;
    while (len < sizeof text) {
        ssize_t n = read(fd.get(), text + len, sizeof text - len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        len += static_cast<size_t>(n);
    }
    if (len == sizeof text)
        return 0;
    if (len > 0 && text[len - 1] == '\n')
        len--;
    pid_t pid = 0;
    auto [end, ec] = std::from_chars(text, text + len, pid);
    if (ec != std::errc() || end != text + len || pid <= 0)
        return 0;
    return pid;
}

// Whether the live process pid runs a program called name, or one of its
// variants called name-something (the sandbox build of a daemon). The pid
// of a process that died without removing its pid file is soon given to an
// unrelated one, which must not keep the daemon from starting. A name that
// cannot be read for any reason other than the process being gone counts
// as ours: refusing to start is the safe side.
bool pid_runs(pid_t pid, const char *name) {
    std::string path = "/proc/" + std::to_string(pid) + "/comm";
    unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!fd)
        return errno != ENOENT && errno != ESRCH;
    char comm[64];
    ssize_t n;
    do
        n = read(fd.get(), comm, sizeof comm);
    while (n < 0 && errno == EINTR);
    if (n < 0)
        return errno != ESRCH;
    std::string_view running(comm, static_cast<size_t>(n));
    if (!running.empty() && running.back() == '\n')
        running.remove_suffix(1);
    // The kernel keeps 15 bytes of the name, so compare only what it keeps.
    std::string_view wanted(name);
    if (wanted.size() > 15)
        wanted = wanted.substr(0, 15);
    return running == wanted || (running.size() > wanted.size() && running.starts_with(wanted) &&
                                 running[wanted.size()] == '-');
}

}  // namespace

int veltrane_pidfile_valid(const char *run_dir, const char *name) {
    std::string path = pidfile_path(run_dir, name);
    if (path.empty())
        return 1;
    pid_t pid = pidfile_read(path);
    if (pid == 0 || pid == getpid())
        return 1;
    // EPERM is a live process of another user: it may still hold the file.
    if (kill(pid, 0) != 0 && errno == ESRCH)
        return 1;
    return pid_runs(pid, name) ? 0 : 1;
}

int veltrane_pidfile_create(const char *run_dir, const char *name) {
    std::string path = pidfile_path(run_dir, name);
    if (path.empty()) {
        errno = EINVAL;
        return -1;
    }
    // The temporary file sits beside the pid file so that rename() stays on
    // one file system and readers see either the old file or the whole new
    // one, never a partial write.
    std::string temp = std::string(run_dir) + "/." + name + ".pid.XXXXXX";
    unique_fd fd(mkostemp(temp.data(), O_CLOEXEC));
    if (!fd)
        return -1;

    char text[32];
    int len = snprintf(text, sizeof text, "%ld\n", static_cast<long>(getpid()));
    bool written = len > 0 && static_cast<size_t>(len) < sizeof text;
    for (size_t done = 0; written && done < static_cast<size_t>(len);) {
        ssize_t n = write(fd.get(), text + done, static_cast<size_t>(len) - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            written = false;
            break;
        }
        done += static_cast<size_t>(n);
    }
    // mkostemp creates the file private to its owner; other tools read pid files.
    if (written && fchmod(fd.get(), 0644) == 0 && close(fd.release()) == 0 &&
        rename(temp.c_str(), path.c_str()) == 0)
        return 0;

    int saved = errno;
    unlink(temp.c_str());
    errno = saved;
    return -1;
}

int veltrane_pidfile_clear(const char *run_dir, const char *name) {
    std::string path = pidfile_path(run_dir, name);
    if (path.empty()) {
        errno = EINVAL;
        return -1;
    }
    // No second instance can replace the file between the read and the
    // unlink: it would see this live process in it and refuse to start.
    if (pidfile_read(path) != getpid()) {
        errno = EPERM;
        return -1;
    }
    return unlink(path.c_str());
}
