#pragma once

#include <string>

// Extends the environment every child command inherits: the helpers'
// directory at the end of PATH, and the marker RUNNING_UNDER_TOVRIN=yes.
void tovrin_child_env_extend();

// The PATH a child command searches when the daemon was started with
// current (null: PATH unset): current, or the system's default, with the
// helpers' directory appended. Throws std::bad_alloc.
std::string tovrin_child_env_path(const char *current);
