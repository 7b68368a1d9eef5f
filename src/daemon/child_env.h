#pragma once

// Extends the environment every child command inherits: the helpers'
// directory at the end of PATH, and the marker RUNNING_UNDER_TOVRIN=yes.
void tovrin_child_env_extend();
