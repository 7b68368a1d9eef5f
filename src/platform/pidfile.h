#pragma once

// The pid file <run_dir>/<name>.pid holds the owner's pid in decimal
// followed by a newline. It keeps a second instance of a daemon from
// starting while the first one lives; a file left by a crash or a kill never
// blocks a restart, even once its pid belongs to another program.

// Non-zero when no other live process holds the pid file: there is no
// file, it cannot be read or parsed, the pid in it is not a live process or
// is one running a program not called name (nor name-something, such as
// tovrin-sandbox for tovrin), or it names this very process. 0 when another
// live instance holds it.
int veltrane_pidfile_valid(const char *run_dir, const char *name);

// Writes this process's pid file, atomically replacing any stale one.
// Returns 0, or -1 with errno set.
int veltrane_pidfile_create(const char *run_dir, const char *name);

// Removes the pid file, but only when it names this process, so a second
// instance can never remove the first one's. Returns 0 when it removed the
// file, -1 otherwise (also when there is no file).
int veltrane_pidfile_clear(const char *run_dir, const char *name);
