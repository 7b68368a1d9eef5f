// tovrin-check: tells an operator, before a reload, what the daemon would
// make of a configuration file, without starting anything.
//
//   tovrin-check [--dot] [--against NEW] [FILE]
//
// Exit status: 0 clean, 1 warnings only, 2 the daemon would refuse the file,
// 64 usage error.

#include <sysexits.h>

#include <cstdio>
#include <cstring>

#include "config/check.h"
#include "daemon/paths.h"

namespace {

int usage() {
    fprintf(stderr, "usage: tovrin-check [--dot] [--against NEW] [FILE]\n");
    return EX_USAGE;
}

}  // namespace

int main(int argc, char **argv) {
    tovrin_check_request request;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--dot") == 0) {
            request.dot = true;
        } else if (strcmp(argv[i], "--against") == 0) {
            if (i + 1 >= argc || !request.against.empty())
                return usage();
            request.against = argv[++i];
        } else if (argv[i][0] == '-' || !request.path.empty()) {
            return usage();
        } else {
            request.path = argv[i];
        }
    }
    if (request.path.empty())
        request.path = tovrin_paths_production().config_file;
    return tovrin_config_check(request, stderr, stdout);
}
