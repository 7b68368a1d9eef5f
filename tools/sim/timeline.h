#pragma once

// The timeline: what a simulation printed or a recording followed, one
// event a line, "TIME VERB TEXT", TIME in seconds with three decimals
// (virtual seconds from the start, or wall-clock seconds since the epoch
// for a recording). The verbs:
//
//   state CONN STATE     CONN entered STATE (its status key was set)
//   set KEY VALUE        the daemon wrote another key (group keys)
//   del KEY              the daemon deleted a key (a conn left the file)
//   log PRIORITY TEXT    the daemon logged TEXT
//   cmd TEXT             an operator's control command reached the daemon
//   reload FILE          the daemon was told to reload, from FILE
//   inject EVENT         the script changed the world (a failure, a value)
//   end                  the timeline stops here
//
// Readers skip lines they do not understand.

#include <cstdio>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct timeline_event {
    double time = 0;
    std::string verb;
    std::string text;  // everything after the verb
};

// "TIME VERB TEXT" without a line break; TEXT's line breaks become blanks,
// so one event stays one line.
std::string timeline_format(const timeline_event &event);

// The event a line holds; nullopt for a line that is not one.
std::optional<timeline_event> timeline_parse(std::string_view line);

// Every event of a timeline text, in order; other lines are skipped.
std::vector<timeline_event> timeline_read(std::istream &in);

// The first blank-separated word of text; *rest gets what follows it.
std::string timeline_word(std::string_view text, std::string *rest = nullptr);
