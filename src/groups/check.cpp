#include "groups/check.h"

#include "daemon/log.h"
#include "daemon/log_mask.h"
#include "store/status.h"
#include "supervise/conn.h"
#include "supervise/globals.h"
#include "supervise/inst.h"
#include "supervise/state.h"

namespace {

enum group_class { GROUP_RUNNING, GROUP_IDLE, GROUP_LEAVING };

group_class group_class_of(int state) {
    switch (state) {
        case TOVRIN_STATE_STARTING:
        case TOVRIN_STATE_STARTING_UP_COMMANDS:
        case TOVRIN_STATE_TESTING:
        case TOVRIN_STATE_TESTED:
        case TOVRIN_STATE_UP:
        case TOVRIN_STATE_STARTING_MEMBERS:
            return GROUP_RUNNING;
        case TOVRIN_STATE_WAITING_TO_STOP:
        case TOVRIN_STATE_STOPPING_UP_COMMANDS:
            return GROUP_LEAVING;
        default:
            return GROUP_IDLE;
    }
}

bool debug_general(const tovrin_conn *conn) {
    const tovrin_inst *inst = conn->inst;
    return inst->globals != nullptr &&
           (inst->globals->instance_log_mask & TOVRIN_INST_LOG_DEBUGGENERAL) != 0;
}

// The ordered group's decision table. Without mutex, standbys run their
// commands but only the active member may enter up; with mutex, only the
// active member starts at all. The active member finishes its stop only
// once its group has left running and leaving behind it.
int orderedgroup_decide(group_class cls, bool active, bool mutex, int request) {
    switch (cls) {
        case GROUP_RUNNING:
            if (active)
                return request == TOVRIN_GROUP_STOP_UP_COMMANDS ? 0 : 1;
            if (request == TOVRIN_GROUP_STOP_UP_COMMANDS)
                return 1;
            return request == TOVRIN_GROUP_START && !mutex ? 1 : 0;
        case GROUP_IDLE:
            return request == TOVRIN_GROUP_STOP_UP_COMMANDS ? 1 : 0;
        case GROUP_LEAVING:
            if (active)
                return 0;
            if (request == TOVRIN_GROUP_STOP_UP_COMMANDS)
                return 1;
            return request == TOVRIN_GROUP_START && !mutex ? 1 : 0;
    }
    return 0;
}

int check_orderedgroup(tovrin_conn *group, tovrin_conn *conn, int request) {
    const tovrin_group_part &part = *group->group_part;
    if (part.active_conn_name.empty()) {
        tovrin_group_reset_active(group);
        if (part.active_conn_name.empty())
            return 1;
    }
    if (group->current_state > TOVRIN_STATE_STOPPING_MEMBERS)
        return 0;
    bool active = conn->name == part.active_conn_name;
    int result =
        orderedgroup_decide(group_class_of(group->current_state), active, part.mutex != 0, request);
    if (debug_general(conn)) {
        tovrin_log(TOVRIN_LOG_INFO,
                   part.mutex != 0 ? "tovrin_conn_check_orderedgroup_mutex(%s, %s, %d) = %d"
                                   : "tovrin_conn_check_orderedgroup(%s, %s, %d) = %d",
                   group->name.c_str(), conn->name.c_str(), request, result);
    }
    return result;
}

}  // namespace

int tovrin_conn_check_group(tovrin_conn *conn, int request) {
    if (conn->group_name.empty())
        return 1;
    tovrin_conn *group = tovrin_conn_find(conn->inst, conn->group_name);
    if (group == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "group name %s not found", conn->group_name.c_str());
        return 1;
    }
    switch (group->type) {
        case TOVRIN_CONN:
            tovrin_log(TOVRIN_LOG_ERROR,
                       "tovrin_conn_check_group called with a conn %s with an invalid group of %s",
                       conn->name.c_str(), group->name.c_str());
            return 1;
        case TOVRIN_ANYGROUP:
            if (debug_general(conn)) {
                tovrin_log(TOVRIN_LOG_INFO, "tovrin_conn_check_anygroup(%s, %s, %d) = %d",
                           group->name.c_str(), conn->name.c_str(), request, 1);
            }
            return 1;
        case TOVRIN_ORDEREDGROUP:
            return check_orderedgroup(group, conn, request);
        default:
            return 0;
    }
}
