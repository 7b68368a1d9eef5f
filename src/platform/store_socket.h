#pragma once

// Connects a close-on-exec Unix stream socket to the store daemon listening
// at socket_path. On success stores the descriptor (owned by the caller) in
// *fd and returns 0; otherwise returns non-zero with *fd untouched and errno
// set. A path that does not fit a Unix socket address fails with
// ENAMETOOLONG rather than being truncated.
int stord_multiple_start_unix(int *fd, const char *socket_path);
