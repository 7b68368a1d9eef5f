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

std::vector<std::string> test_inst::take_store_requests() {
    char buf[65536];
    ssize_t n;
    while ((n = read(store_end.get(), buf, sizeof buf)) > 0)
        received_.append(buf, static_cast<size_t>(n));
    // The head may be partly written already; its rest follows.
    for (const tovrin_store_msg &msg : inst.store_out_queue) {
        size_t done = &msg == &inst.store_out_queue.front() ? inst.store_tx_state : 0;
        received_.append(msg.frame, done);
    }
    inst.store_out_queue.clear();
    inst.store_tx_state = 0;

    std::vector<std::string> bodies;
    size_t pos = 0;
    while (received_.size() - pos >= 4) {
        const auto *p = reinterpret_cast<const unsigned char *>(received_.data() + pos);
        size_t length = (size_t{p[0]} << 24) | (size_t{p[1]} << 16) | (size_t{p[2]} << 8) | p[3];
        std::string body = received_.substr(pos + 4, length);
        for (char &c : body) {
            if (c == '\x1e')
                c = '|';
        }
        bodies.push_back(body);
        pos += 4 + length;
    }
    received_.clear();
    return bodies;
}
