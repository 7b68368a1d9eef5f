#pragma once

// storectl's timeline subcommands: record follows a live store into a
// timeline file, plot draws one (recorded or simulated) as SVG.

#include <string>

// Appends to file every status, group-key and control-command change the
// store sees, each with its wall-clock time, until SIGINT or SIGTERM; the
// keys already set come first, as they stand. 0 when interrupted, 1 when
// the file cannot be written.
int ctl_record(const std::string &socket_path, const std::string &file);

// Draws the timeline in file as SVG into out. 0, or 1 when there is nothing
// to draw or out cannot be written.
int ctl_plot(const std::string &file, const std::string &out);
