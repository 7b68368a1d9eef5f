#include "command/file_dep.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <new>
#include <utility>

#include "daemon/log.h"
#include "platform/unique_file.h"
#include "supervise/conn.h"

namespace {

constexpr size_t crc32_block = 8192;

// The 256 entries of the reflected polynomial, built at compile time.
constexpr std::array<uint32_t, 256> crc32_table_make() {
    std::array<uint32_t, 256> table{};
    for (uint32_t n = 0; n < 256; n++) {
        uint32_t c = n;
        for (int k = 0; k < 8; k++)
            c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[n] = c;
    }
    return table;
}

constexpr std::array<uint32_t, 256> crc32_table = crc32_table_make();

// Folds n more bytes into crc, the CRC-32 of everything before them.
uint32_t crc32_update(uint32_t crc, const unsigned char *bytes, size_t n) {
    uint32_t c = crc ^ 0xFFFFFFFFu;
    for (size_t i = 0; i < n; i++)
        c = crc32_table[(c ^ bytes[i]) & 0xFF] ^ (c >> 8);
    return c ^ 0xFFFFFFFFu;
}

}  // namespace

int tovrin_file_crc32(FILE *stream, uint32_t *checksum) {
    *checksum = 0;
    unsigned char block[crc32_block];
    size_t n;
    while ((n = fread(block, 1, sizeof block, stream)) > 0)
        *checksum = crc32_update(*checksum, block, n);
    if (ferror(stream) != 0) {
        fputs("error reading file\n", stderr);
        return -1;
    }
    return 0;
}

std::optional<tovrin_file_dep> tovrin_file_dep_new(const char *path) {
    if (path == nullptr)
        return std::nullopt;
    tovrin_file_dep dep;
    try {
        dep.path = path;
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate link name");
        return std::nullopt;
    }
    // A file that cannot be opened is not an error: it counts as empty.
    unique_file file(fopen(path, "rb"));
    if (file != nullptr && tovrin_file_crc32(file.get(), &dep.checksum) == -1)
        dep.checksum = 0;
    return dep;
}

void tovrin_conn_add_file_dep(tovrin_conn *conn, const char *path) {
    if (conn == nullptr || path == nullptr)
        return;
    if (conn->var_part != nullptr) {
        for (const tovrin_file_dep &dep : conn->var_part->file_deps) {
            if (dep.path == path)
                return;
        }
    }
    std::optional<tovrin_file_dep> dep = tovrin_file_dep_new(path);
    if (!dep.has_value()) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate file dependency");
        return;
    }
    try {
        tovrin_conn_var_part(conn).file_deps.push_back(std::move(*dep));
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate file dependency");
    }
}
