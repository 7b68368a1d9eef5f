#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

// One scenario of a scenario file (*.scn): a configuration, steps that
// stimulate an in-process daemon, and under each step the events it must
// produce. The language is described at the top of scenario.cpp.
struct scenario {
    std::string file;
    std::string name;
    std::vector<std::pair<int, std::string>> lines;  // line number, text
};

// Every scenario of every *.scn file below dir, by file name and line.
std::vector<scenario> scenarios_under(const std::string &dir);

// Runs s; every mismatch is a test failure naming the file and line.
void scenario_run(const scenario &s);

// How test output names a scenario.
inline void PrintTo(const scenario &s, std::ostream *out) {
    *out << s.file << ": " << s.name;
}
