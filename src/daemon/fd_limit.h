#pragma once

#include <sys/resource.h>
#include <sys/types.h>

struct tovrin_inst;

// The daemon's descriptor limit. Every running command holds the read ends
// of its two pipes in the daemon, so thousands of up commands need more than
// the soft limit service managers give (1,024). The daemon raises its own
// soft limit to what the conns in force may need; children still start with
// the soft limit the daemon was started with.
struct tovrin_fd_limit {
    bool known = false;     // read at the first fit
    rlim_t start_soft = 0;  // what the daemon was started with, and children get
    rlim_t soft = 0;        // in force
    rlim_t reported = 0;    // the largest need already logged as out of reach
};

// Descriptors the daemon may hold at once for the conns in force: two for
// each up command, two for the one start, stop or test command a conn runs
// at a time, and a reserve for its own (store link, log, event loop, files
// read and written now and then).
rlim_t tovrin_fd_limit_needed(const tovrin_inst *inst);

// Raises the soft descriptor limit to what the conns in force need, as far
// as the hard limit allows; never lowers it. Logs the raise, and once for
// each larger need, a hard limit too low for it. Called when a configuration
// comes into force: at start-up and at the end of a reload.
void tovrin_fd_limit_fit(tovrin_inst *inst);

// Starts a child as veltrane_proc_execp_nowait_fds does; the child gets the
// soft limit the daemon was started with, whatever the daemon raised its own
// to.
pid_t tovrin_fd_limit_spawn(const tovrin_fd_limit &limit, const char *file, char *const argv[],
                            int *stdout_fd, int *stderr_fd);
