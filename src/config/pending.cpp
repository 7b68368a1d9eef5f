#include "config/pending.h"

#include <memory>

#include "command/var.h"
#include "supervise/action_queue.h"
#include "supervise/conn.h"
#include "supervise/inst.h"

void tovrin_conn_free(std::unique_ptr<tovrin_conn> conn) {
    if (conn == nullptr)
        return;
    // Children still running are told to go and forgotten, so a late exit
    // finds no entry; the variables' subscriptions live in the instance.
    tovrin_conn_actions_release(conn.get());
    tovrin_conn_vars_free(conn.get());
}

void tovrin_config_discard_new(tovrin_inst *inst) {
    inst->config_reload_timer.del();
    while (!inst->new_conns.empty())
        tovrin_conn_free(inst->new_conns.pop_front());
    inst->new_globals.reset();
}
