#include "supervise/keepalive.h"

#include "daemon/log.h"
#include "groups/check.h"
#include "supervise/action_queue.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"

namespace {

void keepalive_add(tovrin_inst *inst) {
    if (inst->globals == nullptr || inst->globals->keepalive <= 0)
        return;
    inst->tovrin_timer.set<tovrin_keepalive>(inst->base.get(), -1, 0, inst);
    inst->tovrin_timer.add_seconds(*inst->clock, inst->globals->keepalive);
}

bool parents_all_up(tovrin_conn *conn) {
    for (const tovrin_link &link : conn->parents) {
        tovrin_conn *parent = tovrin_conn_find(conn->inst, link.name);
        if (parent != nullptr && parent->current_state != TOVRIN_STATE_UP)
            return false;
    }
    return true;
}

}  // namespace

void tovrin_keepalive_arm(tovrin_inst *inst) {
    if (!inst->tovrin_timer.initialized()) {
        tovrin_log(TOVRIN_LOG_WARN, "%d inst's tovrin_timer not initialized yet, set and add it",
                   122);
    } else if (inst->tovrin_timer.pending()) {
        return;
    }
    keepalive_add(inst);
}

void tovrin_keepalive_cancel(tovrin_inst *inst) {
    if (!inst->tovrin_timer.initialized()) {
        tovrin_log(TOVRIN_LOG_WARN, "%d inst's tovrin_timer not initialized yet, skip deleting it",
                   141);
        return;
    }
    inst->tovrin_timer.del();
}

void tovrin_keepalive(evutil_socket_t, short, void *arg) {
    auto *inst = static_cast<tovrin_inst *>(arg);
    for (tovrin_conn &conn : inst->conns) {
        tovrin_queued_action *head = tovrin_conn_queue_head(&conn);
        if (head != nullptr && head->state == TOVRIN_QA_IDLE) {
            tovrin_log(TOVRIN_LOG_ERROR,
                       "Keepalive found incorrectly waiting commands on conn %s - running now",
                       conn.name.c_str());
            tovrin_action_run(head);
        }
        if (conn.current_state > TOVRIN_STATE_WAITING_TO_START)
            continue;
        bool parents_up = parents_all_up(&conn);
        // The group is always asked, even when the parents already say no.
        bool allowed = tovrin_conn_check_group(&conn, TOVRIN_GROUP_START) != 0;
        if (parents_up && !conn.is_deaf && allowed) {
            tovrin_log(TOVRIN_LOG_ERROR, "Keepalive found incorrectly down conn %s - starting now",
                       conn.name.c_str());
            tovrin_conn_deliver_message(inst, nullptr, &conn, TOVRIN_MSG_START);
        }
    }
    tovrin_keepalive_arm(inst);
}
