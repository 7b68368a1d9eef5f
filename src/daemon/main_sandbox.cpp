#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "daemon/daemon.h"

namespace {

// Creates the directories the daemon writes into, so that an empty ROOT is
// enough to run in.
void sandbox_prepare(const std::string &root) {
    for (const char *dir : {"/var", "/var/run", "/var/log", "/tmp"})
        mkdir((root + dir).c_str(), 0755);
}

}  // namespace

// The same daemon with every fixed path placed under ROOT and its log in
// ROOT/var/log/tovrin.log.
int main(int argc, char **argv) {
    if (argc != 2 || argv[1][0] == '\0') {
        fprintf(stderr, "usage: tovrin-sandbox ROOT\n");
        return 2;
    }
    sandbox_prepare(argv[1]);
    static const tovrin_paths paths = tovrin_paths_sandbox(argv[1]);
    return tovrin_main(paths);
}
