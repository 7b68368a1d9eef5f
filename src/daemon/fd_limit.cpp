#include "daemon/fd_limit.h"

#include "daemon/log.h"
#include "platform/spawn.h"
#include "supervise/conn.h"
#include "supervise/inst.h"

namespace {

// The daemon's own descriptors besides its children's pipes: standard
// streams, store socket, log, event loop, a configuration or dump file
// being read or written, and the pipes of a spawn under way.
constexpr rlim_t OWN_DESCRIPTORS = 64;
// Read ends a running command holds: standard output and standard error.
constexpr rlim_t PIPES_PER_COMMAND = 2;

}  // namespace

rlim_t tovrin_fd_limit_needed(const tovrin_inst *inst) {
    rlim_t commands = 0;
    for (const tovrin_conn &conn : inst->conns) {
        const tovrin_command_part *part = conn.command_part.get();
        if (part == nullptr)
            continue;
        commands += part->up_actions.size();
        if (!part->start_actions.empty() || !part->stop_actions.empty() ||
            !part->test_actions.empty())
            commands++;
    }
    return OWN_DESCRIPTORS + PIPES_PER_COMMAND * commands;
}

void tovrin_fd_limit_fit(tovrin_inst *inst) {
    tovrin_fd_limit &limit = inst->fd_limit;
    rlimit now{};
    if (getrlimit(RLIMIT_NOFILE, &now) != 0)
        return;
    if (!limit.known) {
        limit.known = true;
        limit.start_soft = now.rlim_cur;
    }
    limit.soft = now.rlim_cur;
    const rlim_t needed = tovrin_fd_limit_needed(inst);
    if (needed > now.rlim_max && needed > limit.reported) {
        limit.reported = needed;
        tovrin_log(TOVRIN_LOG_WARN,
                   "hard descriptor limit %llu is below the %llu descriptors the conns may need",
                   static_cast<unsigned long long>(now.rlim_max),
                   static_cast<unsigned long long>(needed));
    }
    const rlim_t wanted = needed < now.rlim_max ? needed : now.rlim_max;
    if (wanted <= now.rlim_cur)
        return;
    rlimit raised{wanted, now.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &raised) != 0) {
        tovrin_log(TOVRIN_LOG_ERROR, "could not raise the descriptor limit to %llu",
                   static_cast<unsigned long long>(wanted));
        return;
    }
    limit.soft = wanted;
    tovrin_log(TOVRIN_LOG_INFO, "descriptor limit raised from %llu to %llu",
               static_cast<unsigned long long>(now.rlim_cur),
               static_cast<unsigned long long>(wanted));
}

pid_t tovrin_fd_limit_spawn(const tovrin_fd_limit &limit, const char *file, char *const argv[],
                            int *stdout_fd, int *stderr_fd) {
    // Not raised: the child inherits the limit as it is, at no cost.
    if (!limit.known || limit.soft == limit.start_soft)
        return veltrane_proc_execp_nowait_fds(file, argv, nullptr, stdout_fd, stderr_fd);
    return veltrane_proc_execp_nowait_fds_nofile(file, argv, limit.start_soft, stdout_fd,
                                                 stderr_fd);
}
