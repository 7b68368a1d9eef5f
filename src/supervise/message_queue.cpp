#include "supervise/message_queue.h"

#include <algorithm>
#include <new>

#include "config/graph_dump.h"
#include "daemon/log.h"
#include "groups/failover.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/state_machine.h"

namespace {

const char *sender_name(const tovrin_conn *conn, const char *none) {
    return conn != nullptr ? conn->name.c_str() : none;
}

// Stop and restart start from a clean slate: no pending restart, no
// failover in progress, no failforward waiting.
void conn_interrupt(tovrin_conn *conn) {
    conn->restart_after_stopping = false;
    if (conn->group_part == nullptr)
        return;
    const bool was_failing_over = conn->group_part->currently_failing_over;
    conn->group_part->currently_failing_over = false;
    if (conn->type == TOVRIN_ORDEREDGROUP)
        tovrin_group_cancel_failforward(conn);
    if (was_failing_over)
        tovrin_group_abandon_failover(conn);
}

void message_handle(const tovrin_msg &msg) {
    tovrin_conn *dst = msg.dst;
    switch (msg.type) {
        case TOVRIN_MSG_START:
            tovrin_conn_start(dst);
            break;
        case TOVRIN_MSG_STOP:
            conn_interrupt(dst);
            tovrin_conn_stop(dst);
            break;
        case TOVRIN_MSG_CHECK_START:
            if (tovrin_conn_is_active(dst))
                tovrin_conn_start(dst);
            break;
        case TOVRIN_MSG_CHECK_STOP:
            tovrin_conn_check_stop(dst);
            break;
        case TOVRIN_MSG_RESTART:
            conn_interrupt(dst);
            tovrin_conn_restart(dst);
            break;
        case TOVRIN_MSG_MEMBER_DOWN:
            tovrin_group_member_down(dst);
            break;
        case TOVRIN_MSG_MEMBER_TESTED:
            tovrin_group_member_tested(dst);
            break;
        case TOVRIN_MSG_MEMBER_FAILED:
            tovrin_group_member_failed(dst);
            break;
        default:
            // "fail", "test" and unknown types are dropped.
            break;
    }
}

}  // namespace

void tovrin_conn_deliver_message(tovrin_inst *inst, tovrin_conn *src, tovrin_conn *dst, int type) {
    if (dst == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "tovrin_conn_deliver_message called with a NULL receipient");
        return;
    }
    if (inst->globals != nullptr &&
        (inst->globals->instance_log_mask & TOVRIN_INST_LOG_DEBUGMESSAGES) != 0) {
        tovrin_log(TOVRIN_LOG_INFO, "Message from %s to %s of type %s", sender_name(src, "(NULL)"),
                   dst->name.c_str(), tovrin_msg_type_name(type));
    }
    if (dst->is_deaf)
        return;
    try {
        inst->message_queue.push_back(tovrin_msg{src, dst, type});
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "could not allocate message");
        tovrin_log(TOVRIN_LOG_FATAL, "could not deliver message");
        return;
    }
    tovrin_mq_snapshot(inst, sender_name(src, "tovrin"), dst->name.c_str(),
                       tovrin_msg_type_name(type), 1);
    inst->dispatch_event.activate();
}

void tovrin_dispatch_messages(evutil_socket_t, short, void *arg) {
    auto *inst = static_cast<tovrin_inst *>(arg);
    if (inst == nullptr) {
        tovrin_log(TOVRIN_LOG_ERROR, "cannot handle msg when inst is NULL!");
        return;
    }
    // Handlers append while we drain; everything they deliver is handled in
    // this same run, after what was queued before it.
    while (!inst->message_queue.empty()) {
        tovrin_msg msg = inst->message_queue.front();
        tovrin_mq_snapshot(inst, sender_name(msg.src, "tovrin"), sender_name(msg.dst, "tovrin"),
                           tovrin_msg_type_name(msg.type), 2);
        inst->message_queue.pop_front();
        if (msg.dst == nullptr) {
            tovrin_log(TOVRIN_LOG_ERROR, "conn msg has no recipient");
            return;
        }
        try {
            message_handle(msg);
        } catch (const std::bad_alloc &) {
            // This handler was cut short; the messages queued after it are
            // still handled now, not left until the next delivery.
            event_slot_out_of_memory();
        }
    }
}

void tovrin_messages_purge_conn(tovrin_inst *inst, const tovrin_conn *conn) {
    std::erase_if(inst->message_queue,
                  [conn](const tovrin_msg &msg) { return msg.dst == conn || msg.src == conn; });
}
