#include "supervise/external.h"

#include "daemon/log.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/keepalive.h"
#include "supervise/message_queue.h"

namespace {

int conn_external(tovrin_conn *conn, const char *verb, int type) {
    if ((conn->log_mask & TOVRIN_LOG_EXTERNALCOMMANDS) != 0)
        tovrin_log(TOVRIN_LOG_INFO, "external %s command received for %s", verb,
                   conn->name.c_str());
    tovrin_conn_deliver_message(conn->inst, nullptr, conn, type);
    return 0;
}

bool instance_logs_commands(const tovrin_inst *inst) {
    return inst->globals != nullptr &&
           (inst->globals->instance_log_mask & TOVRIN_INST_LOG_EXTERNALCOMMANDS) != 0;
}

}  // namespace

int tovrin_conn_external_stop(tovrin_conn *conn) {
    return conn_external(conn, "stop", TOVRIN_MSG_STOP);
}

int tovrin_conn_external_start(tovrin_conn *conn) {
    return conn_external(conn, "start", TOVRIN_MSG_START);
}

int tovrin_conn_external_restart(tovrin_conn *conn) {
    return conn_external(conn, "restart", TOVRIN_MSG_RESTART);
}

int tovrin_external_start_keepalive(tovrin_inst *inst) {
    if (instance_logs_commands(inst))
        tovrin_log(TOVRIN_LOG_INFO, "external start_keepalive command received");
    tovrin_keepalive_arm(inst);
    return 0;
}

int tovrin_external_stop_keepalive(tovrin_inst *inst) {
    if (instance_logs_commands(inst))
        tovrin_log(TOVRIN_LOG_INFO, "external stop_keepalive command received");
    tovrin_keepalive_cancel(inst);
    return 0;
}
