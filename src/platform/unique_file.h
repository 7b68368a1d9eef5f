#pragma once

#include <cstdio>
#include <memory>

// Closes a stdio stream when its owner goes.
struct file_closer {
    void operator()(FILE *file) const { fclose(file); }
};

// Owns one stdio stream; null holds nothing.
using unique_file = std::unique_ptr<FILE, file_closer>;
