#pragma once

#include <string>
#include <vector>

#include "daemon/paths.h"
#include "platform/unique_fd.h"
#include "supervise/inst.h"
#include "support/temp_dir.h"

// An instance initialised as start-up does it, in a private root, with its
// store link on one end of a socket pair; the test plays the store on the
// other end. Declared members go in this order so that the instance (and
// its event base) outlives nothing it points at.
class test_inst {
  public:
    test_inst();
    test_inst(const test_inst &) = delete;
    test_inst &operator=(const test_inst &) = delete;

    // Writes the configuration file the instance reads.
    void write_config(const std::string &text) const;
    // Loads the configuration file and puts it into force, as start-up does.
    int load();
    // Runs the loop until a turn passes with no message queued before or
    // after it (activated events such as the reload check have then run);
    // false when messages still come after 1,000 turns.
    bool dispatch();
    // Queues a message from the daemon to the conn in force named name.
    void deliver(const std::string &name, int type);
    // The conn in force named name, or null (without logging).
    tovrin_conn *conn(const std::string &name) { return inst.conns.find(name); }

    temp_dir root;
    tovrin_paths paths;
    unique_fd store_end;
    unique_fd daemon_end;
    tovrin_inst inst;
};
