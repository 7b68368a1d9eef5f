#pragma once

#include <string>

#include "support/temp_dir.h"

// Checks shared by the tests of the daemon's diagnostic files.

// Compares text with the golden file at path. With TOVRIN_UPDATE_GOLDEN=1 in
// the environment the file is rewritten instead, to be reviewed by hand.
void expect_golden(const std::string &path, const std::string &text);

// Graphviz's dot renders file to SVG with exit status 0 and not a word on
// standard error; scratch holds what dot says.
void expect_renders(const std::string &file, const temp_dir &scratch);

// True when text is an asctime line (its line break included) for a moment
// within a minute of now.
bool is_recent_asctime(const std::string &text);
