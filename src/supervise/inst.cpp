#include "supervise/inst.h"

#include <csignal>

#include "config/reload.h"
#include "store/store_link.h"
#include "supervise/child_exit.h"
#include "supervise/conn.h"
#include "supervise/keepalive.h"
#include "supervise/message_queue.h"

const char tovrin_command_key[] = "config.tovrin.command";

tovrin_inst::~tovrin_inst() = default;

event_base *tovrin_inst_init(int store_fd, tovrin_inst *inst) {
    event_base_ptr base(event_base_new());
    if (base == nullptr)
        return nullptr;

    inst->base = std::move(base);
    event_base *b = inst->base.get();
    inst->store_fd = store_fd;
    inst->command_key = tovrin_command_key;
    inst->store_tx_state = 0;

    inst->store_read_event.set<tovrin_store_read>(b, store_fd, EV_READ | EV_PERSIST, inst);
    inst->store_read_event.add();
    inst->store_write_event.set<tovrin_store_write>(b, store_fd, EV_WRITE | EV_PERSIST, inst);
    inst->tovrin_timer.set<tovrin_keepalive>(b, -1, 0, inst);
    inst->sigchld_event.set<tovrin_sigchld>(b, SIGCHLD, EV_SIGNAL | EV_PERSIST, inst);
    inst->sigchld_event.add();
    inst->reload_check_event.set<tovrin_config_reload_check>(b, -1, 0, inst);

    tovrin_store_subscribe(inst, inst->command_key);

    inst->globals = tovrin_globals_new();
    inst->new_globals.reset();
    // Without settings there is nothing to run with; start-up fails.
    if (inst->globals == nullptr)
        return nullptr;

    inst->dispatch_event.set<tovrin_dispatch_messages>(b, -1, 0, inst);
    inst->config_reload_timer.set<tovrin_config_reload_timeout>(b, -1, 0, inst);
    return b;
}
