#pragma once

// The tools' end-to-end tests run a program to its end and judge its exit
// status and what it printed.

#include "support/test_inst.h"

// The exit status (or 128 + the signal; -1 when it runs past the bound) and
// the standard output and error, as one text.
using ran = std::pair<int, std::string>;

inline ran run_program(const strings &argv, const temp_dir &dir) {
    dir.write_file("program.out", "");
    child_process program(argv, dir.file("program.out"));
    return {program.wait_exit().value_or(-1), dir.read_file("program.out")};
}
