#pragma once

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
