#pragma once

// The picture of a timeline, simulated or recorded, as an SVG document: a
// row per conn in the order conns first appear (the configuration's, for a
// simulation), each group with its members beneath it; a band per state in
// the colours of the graph dump; a bar under the member a group has active;
// markers for failovers, failforwards, operator commands, reloads and the
// script's injected events; a time axis above and below.

#include <string>
#include <vector>

#include "sim/timeline.h"

struct timeline_picture {
    std::string title;
};

// The SVG text.
std::string timeline_svg(const std::vector<timeline_event> &events,
                         const timeline_picture &picture);

// Writes the SVG to path; false when it cannot be written.
bool timeline_svg_write(const std::vector<timeline_event> &events, const timeline_picture &picture,
                        const std::string &path);
