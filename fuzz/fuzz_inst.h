#pragma once

// What the fuzz targets share: an initialised instance in a private root,
// its store link on a socket pair, configured from a text, children never
// started.

#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "command/tokenizer.h"
#include "config/fixup.h"
#include "config/load.h"
#include "config/state_dump.h"
#include "store/command.h"
#include "store/frame.h"
#include "store/store_link.h"
#include "supervise/inst.h"
#include "supervise/message_queue.h"

struct fuzz_inst {
    explicit fuzz_inst(const std::string &config) {
        char dir[] = "/tmp/tovrin-fuzz-XXXXXX";
        root = mkdtemp(dir);
        paths = tovrin_paths_sandbox(root);
        std::filesystem::create_directories(root + "/etc/config");
        std::filesystem::create_directories(root + "/tmp");
        std::ofstream(paths.config_file, std::ios::binary) << config;
        int pair[2];
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair);
        daemon_end.reset(pair[0]);
        store_end.reset(pair[1]);
        inst.paths = &paths;
        inst.spawn = [](const char *, char *const *, int *, int *) -> pid_t { return -1; };
        tovrin_inst_init(daemon_end.get(), &inst);
        loaded = tovrin_config_load(&inst, tovrin_config_move) == 0;
    }
    ~fuzz_inst() { std::filesystem::remove_all(root); }

    std::string root;
    tovrin_paths paths;
    unique_fd daemon_end, store_end;
    tovrin_inst inst;  // goes first, before the descriptors it uses
    bool loaded = false;
};

// A small ancestry with variables of both kinds and a group.
inline const char fuzz_world[] =
    "conn up\n\tvar v up-value\n\tstord_var s some.key\nconn kid\n\tparent up\n\tvar own 1\n"
    "orderedgroup g\n\tmember kid\n\tmember other\nconn other\n\tvar v other\n";
