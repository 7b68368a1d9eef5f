#include "platform/spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>

#include "platform/unique_fd.h"

extern char **environ;

namespace {

// One pipe whose two ends are owned here until handed out.
struct spawn_pipe {
    unique_fd read_end;
    unique_fd write_end;
};

// Makes a close-on-exec pipe whose read end does not block.
bool spawn_pipe_open(spawn_pipe *p) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    p->read_end.reset(ends[0]);
    p->write_end.reset(ends[1]);
    int flags = fcntl(p->read_end.get(), F_GETFL);
    return flags >= 0 && fcntl(p->read_end.get(), F_SETFL, flags | O_NONBLOCK) == 0;
}

// posix_spawn attributes, destroyed with this object.
class spawn_attr {
  public:
    spawn_attr() { ok_ = posix_spawnattr_init(&attr_) == 0; }
    ~spawn_attr() {
        if (ok_)
            posix_spawnattr_destroy(&attr_);
    }
    spawn_attr(const spawn_attr &) = delete;
    spawn_attr &operator=(const spawn_attr &) = delete;

    // New process group led by the child; every signal the caller may have
    // ignored back at its default (handlers are reset by exec anyway); and
    // no signal blocked, whatever the caller had blocked while spawning.
    int setup() {
        if (!ok_)
            return ENOMEM;
        sigset_t none, all;
        sigemptyset(&none);
        sigemptyset(&all);
        for (int sig = 1; sig < NSIG; sig++) {
            // sigaddset() refuses the C library's reserved signals. No caller
            // can change those; the library alone decides their state in
            // the child (glibc 2.36 leaves them ignored).
            if (sig != SIGKILL && sig != SIGSTOP)
                sigaddset(&all, sig);
        }
        int rc = posix_spawnattr_setflags(
            &attr_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        if (rc == 0)
            rc = posix_spawnattr_setpgroup(&attr_, 0);
        if (rc == 0)
            rc = posix_spawnattr_setsigmask(&attr_, &none);
        if (rc == 0)
            rc = posix_spawnattr_setsigdefault(&attr_, &all);
        return rc;
    }

    const posix_spawnattr_t *get() const { return &attr_; }

  private:
    posix_spawnattr_t attr_;
    bool ok_ = false;
};

// posix_spawn file actions, destroyed with this object.
class spawn_actions {
  public:
    spawn_actions() { ok_ = posix_spawn_file_actions_init(&actions_) == 0; }
    ~spawn_actions() {
        if (ok_)
            posix_spawn_file_actions_destroy(&actions_);
    }
    spawn_actions(const spawn_actions &) = delete;
    spawn_actions &operator=(const spawn_actions &) = delete;

    // Descriptors are allocated lowest first and a pipe's write end comes
    // after its read end, so neither write end can be 0, and the stderr one
    // cannot be 1: no redirection overwrites the source of a later one. A
    // write end that already is 1 or 2 (the caller closed its stdio) has
    // its close-on-exec flag cleared by the C library's dup2 action. Every
    // pipe end is close-on-exec, so none reaches the program under its
    // original number.
    int setup(int out_write, int err_write) {
        if (!ok_)
            return ENOMEM;
        int rc =
            posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        if (rc == 0)
            rc = posix_spawn_file_actions_adddup2(&actions_, out_write, STDOUT_FILENO);
        if (rc == 0)
            rc = posix_spawn_file_actions_adddup2(&actions_, err_write, STDERR_FILENO);
        return rc;
    }

    const posix_spawn_file_actions_t *get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_;
    bool ok_ = false;
};

// Lowers the caller's soft descriptor limit to a child's (none: keeps it)
// for as long as the object lives, so that a child made meanwhile inherits
// it. posix_spawn has no attribute for limits; this costs three system
// calls, where a helper that sets the limit between fork and exec would mean
// doing the C library's vfork-style spawn again by hand. Nothing opens a
// descriptor while the limit is low: the pipes exist already, the child's
// standard input is opened on the number 0 that its action closes first,
// and dup2 to 1 and 2 is below any limit.
class nofile_lowered {
  public:
    explicit nofile_lowered(const rlim_t *child_nofile) {
        if (child_nofile == nullptr || getrlimit(RLIMIT_NOFILE, &own_) != 0 ||
            own_.rlim_cur <= *child_nofile)
            return;
        rlimit child{*child_nofile, own_.rlim_max};
        lowered_ = setrlimit(RLIMIT_NOFILE, &child) == 0;
    }
    ~nofile_lowered() {
        if (lowered_)
            setrlimit(RLIMIT_NOFILE, &own_);
    }
    nofile_lowered(const nofile_lowered &) = delete;
    nofile_lowered &operator=(const nofile_lowered &) = delete;

  private:
    rlimit own_{};
    bool lowered_ = false;
};

// Whether posix_spawnp failed in the child's exec, the program being
// missing or unusable, rather than in making the child.
bool exec_failed(int error) {
    switch (error) {
        case ENOENT:
        case EACCES:
        case ENOEXEC:
        case ENOTDIR:
        case ELOOP:
        case ENAMETOOLONG:
        case EISDIR:
        case ETXTBSY:
        case E2BIG:
        case EPERM:
            return true;
        default:
            return false;
    }
}

// Both spawn calls; child_nofile null keeps the caller's limit. An empty name
// is a program that cannot be found, as for exec: its child exits with 127
// below.
pid_t spawn(const char *file, char *const argv[], const rlim_t *child_nofile, int *stdout_fd,
            int *stderr_fd) {
    if (file == nullptr || argv == nullptr || stdout_fd == nullptr || stderr_fd == nullptr) {
        errno = EINVAL;
        return -1;
    }
    spawn_pipe out, err;
    if (!spawn_pipe_open(&out) || !spawn_pipe_open(&err))
        return -1;

    spawn_attr attr;
    spawn_actions actions;
    int rc = attr.setup();
    if (rc == 0)
        rc = actions.setup(out.write_end.get(), err.write_end.get());
    pid_t pid = -1;
    if (rc == 0) {
        // Only now: the actions above check their descriptors against the
        // limit in force.
        nofile_lowered lowered(child_nofile);
        rc = posix_spawnp(&pid, file, actions.get(), attr.get(), argv, environ);
    }
    int exec_error = 0;
    if (rc != 0 && exec_failed(rc)) {
        // The C library has already reaped the child whose exec failed. As
        // after fork and exec, a child stands in for it and exits with 127,
        // so the caller sees a command that ran and failed.
        exec_error = rc;
        pid = fork();
        if (pid == 0) {
            setpgid(0, 0);
            _exit(127);
        }
        rc = pid > 0 ? 0 : errno;
        if (pid > 0)
            setpgid(pid, pid);
    }
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    // The write ends close on return, so the read ends see end-of-file as
    // soon as the child and everything it started have closed theirs.
    *stdout_fd = out.read_end.release();
    *stderr_fd = err.read_end.release();
    errno = exec_error;
    return pid;
}

}  // namespace

pid_t veltrane_proc_execp_nowait_fds(const char *file, char *const argv[], void *reserved,
                                     int *stdout_fd, int *stderr_fd) {
    if (reserved != nullptr) {
        errno = EINVAL;
        return -1;
    }
    return spawn(file, argv, nullptr, stdout_fd, stderr_fd);
}

pid_t veltrane_proc_execp_nowait_fds_nofile(const char *file, char *const argv[],
                                            rlim_t child_nofile, int *stdout_fd, int *stderr_fd) {
    return spawn(file, argv, &child_nofile, stdout_fd, stderr_fd);
}
