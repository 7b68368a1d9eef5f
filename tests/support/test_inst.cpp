#include "support/test_inst.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "config/fixup.h"
#include "config/load.h"
#include "supervise/message_queue.h"

test_inst::test_inst() : paths(tovrin_paths_sandbox(root.path())) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair) != 0)
        throw std::runtime_error("socketpair failed");
    daemon_end.reset(pair[0]);
    store_end.reset(pair[1]);
    inst.paths = &paths;
    if (tovrin_inst_init(daemon_end.get(), &inst) == nullptr)
        throw std::runtime_error("tovrin_inst_init failed");
    // The start-up subscription is not what tests look at.
    inst.store_out_queue.clear();
}

void test_inst::write_config(const std::string &text) const {
    root.write_file("etc/config/tovrin.conf", text);
}

int test_inst::load() {
    return tovrin_config_load(&inst, tovrin_config_move);
}

bool test_inst::dispatch() {
    for (int turns = 0; turns < 1000; turns++) {
        bool quiet = inst.message_queue.empty();
        event_base_loop(inst.base.get(), EVLOOP_NONBLOCK);
        if (quiet && inst.message_queue.empty())
            return true;
    }
    return false;
}

void test_inst::deliver(const std::string &name, int type) {
    tovrin_conn_deliver_message(&inst, nullptr, conn(name), type);
}
