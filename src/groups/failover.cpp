#include "groups/failover.h"

#include "daemon/log.h"
#include "daemon/log_mask.h"
#include "supervise/conn.h"
#include "supervise/message.h"
#include "supervise/message_queue.h"

int tovrin_conn_external_failover(tovrin_conn *conn) {
    if ((conn->log_mask & TOVRIN_LOG_EXTERNALCOMMANDS) != 0)
        tovrin_log(TOVRIN_LOG_INFO, "external failover command received for %s",
                   conn->name.c_str());
    if (conn->type != TOVRIN_CONN && !conn->active_conn_name.empty()) {
        // A missing member is logged by the lookup and the message dropped.
        tovrin_conn *member = tovrin_conn_find(conn->inst, conn->active_conn_name);
        tovrin_conn_deliver_message(conn->inst, nullptr, member, TOVRIN_MSG_RESTART);
    }
    return 0;
}
