#include "config/reload.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "command/var.h"
#include "config/compare.h"
#include "config/fixup.h"
#include "config/load.h"
#include "config/pending.h"
#include "daemon/fd_limit.h"
#include "daemon/log.h"
#include "daemon/log_mask.h"
#include "store/status.h"
#include "supervise/conn.h"
#include "supervise/globals.h"
#include "supervise/inst.h"
#include "supervise/keepalive.h"
#include "supervise/message.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"

namespace {

enum reload_fate { CONN_KEPT, CONN_REMOVED, CONN_CHANGED };

// What the waiting configuration does to a conn in force; *namesake is its
// record in the new configuration, if any.
reload_fate fate_of(tovrin_inst *inst, const tovrin_conn &old, tovrin_conn **namesake) {
    *namesake = inst->new_conns.find(old.name);
    if (*namesake == nullptr)
        return CONN_REMOVED;
    return tovrin_conn_compare(&old, *namesake) != 0 ? CONN_KEPT : CONN_CHANGED;
}

bool due_to_run(const tovrin_conn &conn) {
    return tovrin_conn_is_active(&conn) || conn.restart_after_stopping;
}

void send(tovrin_inst *inst, tovrin_conn *conn, int type) {
    tovrin_conn_deliver_message(inst, nullptr, conn, type);
}

bool debug_general(const tovrin_inst *inst) {
    return inst->globals != nullptr &&
           (inst->globals->instance_log_mask & TOVRIN_INST_LOG_DEBUGGENERAL) != 0;
}

// Frees conns that have left the configuration. Messages may still name
// them (a stop queued by the first pass, a check-stop sent on entering
// down): those to them are dropped, and those from them lose their sender,
// which only ever served the log. One pass over the queue for all of them;
// gone has room for every doomed conn already, so nothing here allocates.
void conns_free(tovrin_inst *inst, std::vector<std::unique_ptr<tovrin_conn>> &doomed,
                std::vector<const tovrin_conn *> &gone) {
    if (doomed.empty())
        return;
    for (const auto &conn : doomed)
        gone.push_back(conn.get());
    std::sort(gone.begin(), gone.end());
    auto is_gone = [&gone](const tovrin_conn *conn) {
        return std::binary_search(gone.begin(), gone.end(), conn);
    };
    std::erase_if(inst->message_queue, [&](const tovrin_msg &msg) { return is_gone(msg.dst); });
    for (tovrin_msg &msg : inst->message_queue) {
        if (is_gone(msg.src))
            msg.src = nullptr;
    }
    for (auto &conn : doomed)
        tovrin_conn_free(std::move(conn));
}

}  // namespace

void tovrin_config_sighup(evutil_socket_t, short, void *arg) {
    auto *inst = static_cast<tovrin_inst *>(arg);
    tovrin_log(TOVRIN_LOG_INFO, "SIGHUP - Reloading Config");
    tovrin_config_load(inst, tovrin_config_reload_begin);
}

void tovrin_config_reload_begin(tovrin_inst *inst) {
    inst->reloading_config = true;
    tovrin_keepalive_cancel(inst);
    for (tovrin_conn &old : inst->conns) {
        tovrin_conn *namesake = nullptr;
        switch (fate_of(inst, old, &namesake)) {
            case CONN_REMOVED:
                tovrin_log(TOVRIN_LOG_DEBUG, "conn [%s] is new, sending stop", old.name.c_str());
                send(inst, &old, TOVRIN_MSG_STOP);
                break;
            case CONN_KEPT:
                break;
            case CONN_CHANGED:
                if (due_to_run(old))
                    namesake->start_after_reload = true;
                if (old.current_state == TOVRIN_STATE_DOWN) {
                    tovrin_log(TOVRIN_LOG_INFO,
                               "conn [%s] has changed, but still remained in DOWN state",
                               old.name.c_str());
                } else {
                    tovrin_log(TOVRIN_LOG_DEBUG, "conn [%s] has changed, sending stop",
                               old.name.c_str());
                    send(inst, &old, TOVRIN_MSG_STOP);
                }
                break;
        }
    }
    if (tovrin_config_reload_ready(inst)) {
        tovrin_config_reload_merge(inst);
        return;
    }
    int timeout = inst->globals != nullptr ? inst->globals->configreloadtimeout : 0;
    if (timeout >= 1) {
        if (debug_general(inst))
            tovrin_log(TOVRIN_LOG_INFO, "DEBUG -- starting config reloading timer for %d seconds",
                       timeout);
        inst->config_reload_timer.add_seconds(*inst->clock, timeout);
    } else if (debug_general(inst)) {
        tovrin_log(TOVRIN_LOG_INFO, "DEBUG -- not starting config reload timer");
    }
}

int tovrin_config_reload_ready(tovrin_inst *inst) {
    for (tovrin_conn &old : inst->conns) {
        tovrin_conn *namesake = nullptr;
        if (fate_of(inst, old, &namesake) != CONN_KEPT && old.current_state != TOVRIN_STATE_DOWN)
            return 0;
    }
    return 1;
}

void tovrin_config_reload_check(evutil_socket_t, short, void *arg) {
    auto *inst = static_cast<tovrin_inst *>(arg);
    if (!inst->reloading_config)
        return;
    if (tovrin_config_reload_ready(inst))
        tovrin_config_reload_merge(inst);
}

void tovrin_config_reload_timeout(evutil_socket_t, short, void *arg) {
    auto *inst = static_cast<tovrin_inst *>(arg);
    tovrin_log(TOVRIN_LOG_FATAL, "Unexpected timeout while reloading configuration.");
    tovrin_log(TOVRIN_LOG_FATAL, "Stopping all connections to let config reload");
    for (tovrin_conn &conn : inst->conns) {
        if (due_to_run(conn))
            conn.start_after_reload = true;
        send(inst, &conn, TOVRIN_MSG_STOP);
    }
}

void tovrin_config_reload_merge(tovrin_inst *inst) {
    // Everything the merge needs is allocated before it changes anything, so
    // a failure leaves the reload waiting as it was.
    std::vector<std::unique_ptr<tovrin_conn>> doomed;
    std::vector<const tovrin_conn *> freed;
    doomed.reserve(inst->conns.size() + inst->new_conns.size());
    freed.reserve(inst->conns.size() + inst->new_conns.size());
    inst->conns.reserve(inst->new_conns.size());

    inst->config_reload_timer.del();
    for (auto it = inst->conns.begin(); it != inst->conns.end();) {
        tovrin_conn *old = &*it++;
        tovrin_conn *namesake = nullptr;
        switch (fate_of(inst, *old, &namesake)) {
            case CONN_KEPT:
                // The duplicate's subscriptions are cancelled now, in the
                // order of the conns; the record itself goes below.
                doomed.push_back(inst->new_conns.unlink(namesake));
                tovrin_conn_vars_free(doomed.back().get());
                continue;
            case CONN_REMOVED:
                tovrin_log(TOVRIN_LOG_INFO, "removing old conn: %s", old->name.c_str());
                break;
            case CONN_CHANGED:
                tovrin_log(TOVRIN_LOG_INFO, "removing changed conn: %s", old->name.c_str());
                break;
        }
        std::unique_ptr<tovrin_conn> gone = inst->conns.unlink(old);
        if (gone->command_part != nullptr)
            gone->command_part->test_event.del();
        tovrin_remove_status(gone.get());
        tovrin_conn_vars_free(gone.get());
        doomed.push_back(std::move(gone));
    }
    conns_free(inst, doomed, freed);

    tovrin_config_adopt_new_conns(inst);
    tovrin_fd_limit_fit(inst);
    for (tovrin_conn &conn : inst->conns) {
        if (conn.children.empty() || conn.start_after_reload)
            send(inst, &conn, TOVRIN_MSG_START);
        conn.start_after_reload = false;
    }
    inst->reloading_config = false;
    inst->globals = std::move(inst->new_globals);
    tovrin_keepalive_arm(inst);
    tovrin_log(TOVRIN_LOG_INFO, "Finished Reloading Config");
}
