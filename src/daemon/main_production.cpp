#include "daemon/daemon.h"

// The appliance's daemon: no arguments, the fixed paths, syslog.
int main() {
    static const tovrin_paths paths = tovrin_paths_production();
    return tovrin_main(paths);
}
