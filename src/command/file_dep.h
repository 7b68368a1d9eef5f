#pragma once

#include <cstdint>
#include <string>

// A file a conn depends on, with the CRC-32 of its contents when the
// configuration was read.
struct tovrin_file_dep {
    std::string path;
    uint32_t checksum = 0;
};
