#pragma once

#include <sys/resource.h>
#include <sys/types.h>

// Starts file (looked up on the caller's current PATH, no shell) with argv
// as the leader of a new process group, with standard input from /dev/null
// and standard output and standard error on two pipes. The read ends,
// non-blocking and close-on-exec, are returned through stdout_fd and
// stderr_fd and belong to the caller. The child starts with every signal a
// caller can catch or ignore at its default disposition and an empty signal
// mask. reserved must be null.
// Returns the child's pid, which the caller reaps, with errno 0; or -1 with
// errno set and nothing left open or running when no child can be made. A
// program that cannot be found (an empty name among them) or executed still
// gives a child, which exits with status 127 at once; errno then names the
// cause.
pid_t veltrane_proc_execp_nowait_fds(const char *file, char *const argv[], void *reserved,
                                     int *stdout_fd, int *stderr_fd);

// As veltrane_proc_execp_nowait_fds, but the child starts with child_nofile
// as its soft descriptor limit when that is below the caller's; its hard
// limit is the caller's. A caller that raised its own limit for the pipes of
// many children need not hand the raise on: programs that still use
// select() break above 1,024 descriptors. The caller's own soft limit is
// lowered for the moment of the spawn only, so the caller must have a single
// thread.
pid_t veltrane_proc_execp_nowait_fds_nofile(const char *file, char *const argv[],
                                            rlim_t child_nofile, int *stdout_fd, int *stderr_fd);
