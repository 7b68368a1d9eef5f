// The floor the supervisors are measured against: the least a supervisor
// must do. Spawns N copies of a command with the daemon's own spawn call
// (new process group, output on two pipes), keeps the pipes, and starts a
// copy again as soon as one ends. Runs until SIGTERM or SIGINT.
//
//   spawn_floor N PROGRAM [ARG...]

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <unordered_map>
#include <utility>

#include "platform/spawn.h"
#include "platform/unique_fd.h"

namespace {

struct pipes {
    unique_fd out, err;
};

bool spawn_one(char **argv, std::unordered_map<pid_t, pipes> &children) {
    int out = -1, err = -1;
    pid_t pid = veltrane_proc_execp_nowait_fds(argv[0], argv, nullptr, &out, &err);
    if (pid < 0) {
        perror("spawn_floor: spawn");
        return false;
    }
    children[pid] = pipes{unique_fd(out), unique_fd(err)};
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: spawn_floor N PROGRAM [ARG...]\n");
        return 2;
    }
    long n = strtol(argv[1], nullptr, 10);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);

    std::unordered_map<pid_t, pipes> children;
    children.reserve(static_cast<size_t>(n));
    for (long i = 0; i < n; i++) {
        if (!spawn_one(argv + 2, children))
            return 1;
    }
    for (;;) {
        int sig = 0;
        sigwait(&set, &sig);
        if (sig != SIGCHLD)
            break;
        for (pid_t pid; (pid = waitpid(-1, nullptr, WNOHANG)) > 0;) {
            children.erase(pid);
            spawn_one(argv + 2, children);
        }
    }
    for (const auto &child : children)
        killpg(child.first, SIGTERM);
    return 0;
}
