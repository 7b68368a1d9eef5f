#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

struct tovrin_conn;

// A file a conn depends on, with the CRC-32 of its contents when the
// configuration was read.
struct tovrin_file_dep {
    std::string path;
    uint32_t checksum = 0;
};

// Reads stream to its end in 8192-byte blocks and sets *checksum to the
// CRC-32 (reflected, polynomial 0xEDB88320) of every byte read. 0, or -1
// after a read error, which is reported on standard error only; *checksum
// then covers the bytes read before it.
int tovrin_file_crc32(FILE *stream, uint32_t *checksum);

// A dependency on path with the file's checksum now; 0 when the file cannot
// be opened or read. nullopt for a null path, or after logging when memory
// is short.
std::optional<tovrin_file_dep> tovrin_file_dep_new(const char *path);

// Appends a dependency on path to the conn, unless the path is already
// listed; a null path is ignored.
void tovrin_conn_add_file_dep(tovrin_conn *conn, const char *path);
