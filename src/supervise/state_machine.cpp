#include "supervise/state_machine.h"

#include "daemon/log.h"
#include "groups/check.h"
#include "groups/failover.h"
#include "store/status.h"
#include "supervise/action_queue.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"

namespace {

void send(tovrin_conn *conn, tovrin_conn *dst, int type) {
    tovrin_conn_deliver_message(conn->inst, conn, dst, type);
}

void send_self(tovrin_conn *conn, int type) {
    send(conn, conn, type);
}

// Records a transition: previous_state keeps where the conn came from.
void state_enter(tovrin_conn *conn, int state) {
    conn->previous_state = conn->current_state;
    conn->current_state = state;
    tovrin_publish_status(conn);
}

// Some entries leave previous_state as it was.
void state_set(tovrin_conn *conn, int state) {
    conn->current_state = state;
    tovrin_publish_status(conn);
}

tovrin_conn *find(tovrin_conn *conn, const std::string &name) {
    return tovrin_conn_find(conn->inst, name);
}

tovrin_conn *group_of(tovrin_conn *conn) {
    return conn->group_name.empty() ? nullptr : find(conn, conn->group_name);
}

bool mask_has(const tovrin_conn *conn, uint64_t word) {
    return (conn->log_mask & word) != 0;
}

bool is_group(const tovrin_conn *conn) {
    return conn->type == TOVRIN_ANYGROUP || conn->type == TOVRIN_ORDEREDGROUP;
}

void conn_set_down(tovrin_conn *conn) {
    state_enter(conn, TOVRIN_STATE_DOWN);
    for (const tovrin_link &link : conn->parents) {
        if (tovrin_conn *parent = find(conn, link.name))
            send(conn, parent, TOVRIN_MSG_CHECK_STOP);
    }
    if (tovrin_conn *group = group_of(conn))
        send(conn, group, TOVRIN_MSG_MEMBER_DOWN);
    conn->inst->reload_check_event.activate();
    send_self(conn, TOVRIN_MSG_CHECK_STOP);
}

void conn_set_waiting_to_start(tovrin_conn *conn) {
    state_enter(conn, TOVRIN_STATE_WAITING_TO_START);
    if (!tovrin_conn_group_needs_start(conn)) {
        send_self(conn, TOVRIN_MSG_CHECK_START);
        return;
    }
    // A group still waiting to start or starting takes its members along.
    tovrin_conn *group = group_of(conn);
    if (group != nullptr && !tovrin_conn_is_active(group))
        send(conn, group, TOVRIN_MSG_START);
}

void conn_start_parents(tovrin_conn *conn) {
    if (tovrin_conn_count_parents_not_up(conn) > 0) {
        for (const tovrin_link &link : conn->parents) {
            tovrin_conn *parent = find(conn, link.name);
            if (parent != nullptr && !tovrin_conn_is_active(parent))
                send(conn, parent, TOVRIN_MSG_START);
        }
        return;
    }
    state_set(conn, TOVRIN_STATE_STARTING);
    if (tovrin_conn_has_actions(conn, TOVRIN_ACTION_START))
        tovrin_conn_queue_start_actions(conn);
    else
        send_self(conn, TOVRIN_MSG_CHECK_START);
}

void conn_start_up_commands(tovrin_conn *conn) {
    if (conn->n_queued_start_actions > 0)
        return;
    state_enter(conn, TOVRIN_STATE_STARTING_UP_COMMANDS);
    tovrin_conn_queue_up_actions(conn);
    send_self(conn, TOVRIN_MSG_CHECK_START);
}

// Testing begins: the first run after testdelay. A plain conn keeps the
// counts of its earlier runs; only a group starts them afresh.
void conn_tests_begin(tovrin_conn *conn) {
    if (tovrin_conn_has_actions(conn, TOVRIN_ACTION_TEST))
        tovrin_conn_schedule_tests(conn, conn->testdelay);
    else
        send_self(conn, TOVRIN_MSG_CHECK_START);
}

void conn_set_tested(tovrin_conn *conn) {
    if (tovrin_conn_has_actions(conn, TOVRIN_ACTION_TEST) && conn->n_test_passes <= 0)
        return;
    state_enter(conn, TOVRIN_STATE_TESTED);
    send_self(conn, TOVRIN_MSG_CHECK_START);
}

void conn_set_up(tovrin_conn *conn) {
    if (!tovrin_conn_check_group(conn, TOVRIN_GROUP_ENTER_UP)) {
        if (tovrin_conn *group = group_of(conn))
            send(conn, group, TOVRIN_MSG_MEMBER_TESTED);
        return;
    }
    if (tovrin_conn *group = group_of(conn))
        send(conn, group, TOVRIN_MSG_CHECK_START);
    state_enter(conn, TOVRIN_STATE_UP);
    if (mask_has(conn, TOVRIN_LOG_UPTRANSITIONS))
        tovrin_log(TOVRIN_LOG_INFO, "%s is now running successfully", conn->name.c_str());
    for (const tovrin_link &link : conn->children) {
        if (tovrin_conn *child = find(conn, link.name))
            send(conn, child, TOVRIN_MSG_START);
    }
}

void conn_set_waiting_to_stop(tovrin_conn *conn) {
    if (mask_has(conn, TOVRIN_LOG_UPTRANSITIONS) && conn->current_state == TOVRIN_STATE_UP)
        tovrin_log(TOVRIN_LOG_INFO, "%s is no longer running successfully", conn->name.c_str());
    state_enter(conn, TOVRIN_STATE_WAITING_TO_STOP);
    if (tovrin_conn_has_actions(conn, TOVRIN_ACTION_TEST))
        tovrin_conn_cancel_tests(conn);
    if (conn->previous_state == TOVRIN_STATE_UP) {
        if (tovrin_conn *group = group_of(conn))
            send(conn, group, TOVRIN_MSG_MEMBER_FAILED);
    }
    if (tovrin_conn_count_children_started(conn) == 0) {
        send_self(conn, TOVRIN_MSG_CHECK_STOP);
        return;
    }
    for (const tovrin_link &link : conn->children) {
        tovrin_conn *child = find(conn, link.name);
        if (child != nullptr && !tovrin_conn_is_stopping(child))
            send(conn, child, TOVRIN_MSG_STOP);
    }
}

void conn_stop_up_commands(tovrin_conn *conn) {
    if (!tovrin_conn_check_group(conn, TOVRIN_GROUP_STOP_UP_COMMANDS))
        return;
    if (tovrin_conn_count_children_started(conn) > 0)
        return;
    state_enter(conn, TOVRIN_STATE_STOPPING_UP_COMMANDS);
    if (tovrin_conn_has_queued_up_actions(conn))
        tovrin_conn_stop_up_actions(conn);
    else if (tovrin_conn_queue_head(conn) != nullptr)
        tovrin_conn_clear_actions(conn);
    else
        send_self(conn, TOVRIN_MSG_CHECK_STOP);
}

// The stop actions, or straight on when there are none.
void conn_queue_stop(tovrin_conn *conn) {
    if (tovrin_conn_has_actions(conn, TOVRIN_ACTION_STOP))
        tovrin_conn_queue_stop_actions(conn);
    else
        send_self(conn, TOVRIN_MSG_CHECK_STOP);
}

bool member_up(tovrin_conn *group, const tovrin_link &link) {
    tovrin_conn *member = find(group, link.name);
    return member != nullptr && member->current_state == TOVRIN_STATE_UP;
}

bool any_member_up(tovrin_conn *group) {
    for (const tovrin_link &link : group->group_part->members) {
        if (member_up(group, link))
            return true;
    }
    return false;
}

tovrin_conn *group_active_member(tovrin_conn *group) {
    const std::string &active = group->group_part->active_conn_name;
    return active.empty() ? nullptr : find(group, active);
}

void group_ensure_active(tovrin_conn *group) {
    if (group->type == TOVRIN_ORDEREDGROUP && group->group_part->active_conn_name.empty())
        tovrin_group_reset_active(group);
}

void group_start_testing(tovrin_conn *group) {
    if (group->type == TOVRIN_ORDEREDGROUP) {
        group_ensure_active(group);
        tovrin_conn *active = group_active_member(group);
        if (active == nullptr || active->current_state != TOVRIN_STATE_UP)
            return;
        tovrin_group_cancel_failover(group);
    } else if (group->type == TOVRIN_ANYGROUP) {
        if (!any_member_up(group))
            return;
    } else {
        return;
    }
    state_set(group, TOVRIN_STATE_TESTING);
    if (tovrin_conn_has_actions(group, TOVRIN_ACTION_TEST)) {
        group->n_test_failures = 0;
        group->n_test_passes = 0;
    }
    conn_tests_begin(group);
}

void group_start_members(tovrin_conn *group) {
    state_enter(group, TOVRIN_STATE_STARTING_MEMBERS);
    if (group->type == TOVRIN_ORDEREDGROUP) {
        group_ensure_active(group);
        // The group gate decides which of them may really start.
        for (const tovrin_link &link : group->group_part->members) {
            if (tovrin_conn *member = find(group, link.name))
                send(group, member, TOVRIN_MSG_START);
        }
        if (group_active_member(group) != nullptr) {
            if (int timeout = group->group_part->failovertimeout; timeout != 0)
                tovrin_group_arm_failover(group, timeout);
        } else {
            send_self(group, TOVRIN_MSG_CHECK_START);
        }
        return;
    }
    bool up = false;
    for (const tovrin_link &link : group->group_part->members) {
        tovrin_conn *member = find(group, link.name);
        if (member == nullptr)
            continue;
        if (member->current_state == TOVRIN_STATE_UP)
            up = true;
        else
            send(group, member, TOVRIN_MSG_START);
    }
    if (up)
        send_self(group, TOVRIN_MSG_CHECK_START);
}

void conn_start_by_state(tovrin_conn *conn) {
    switch (conn->current_state) {
        case TOVRIN_STATE_DOWN:
            conn_set_waiting_to_start(conn);
            break;
        case TOVRIN_STATE_WAITING_TO_START:
            conn_start_parents(conn);
            break;
        case TOVRIN_STATE_STARTING:
            conn_start_up_commands(conn);
            break;
        case TOVRIN_STATE_STARTING_UP_COMMANDS:
            state_enter(conn, TOVRIN_STATE_TESTING);
            conn_tests_begin(conn);
            break;
        case TOVRIN_STATE_TESTING:
            conn_set_tested(conn);
            break;
        case TOVRIN_STATE_TESTED:
            conn_set_up(conn);
            break;
        case TOVRIN_STATE_WAITING_TO_STOP:
        case TOVRIN_STATE_STOPPING_UP_COMMANDS:
        case TOVRIN_STATE_STOPPING:
            // Already on the way down: come back once down.
            conn->restart_after_stopping = true;
            break;
        default:
            break;
    }
}

void group_start_by_state(tovrin_conn *group) {
    switch (group->current_state) {
        case TOVRIN_STATE_DOWN:
        case TOVRIN_STATE_STOPPING:
            conn_set_waiting_to_start(group);
            break;
        case TOVRIN_STATE_WAITING_TO_START:
            conn_start_parents(group);
            break;
        case TOVRIN_STATE_STARTING:
        case TOVRIN_STATE_STOPPING_MEMBERS:
            group_start_members(group);
            break;
        case TOVRIN_STATE_STARTING_UP_COMMANDS:
            group_start_testing(group);
            break;
        case TOVRIN_STATE_TESTING:
            conn_set_tested(group);
            break;
        case TOVRIN_STATE_TESTED:
            conn_set_up(group);
            break;
        case TOVRIN_STATE_WAITING_TO_STOP:
            tovrin_conn_queue_up_actions(group);
            group_start_testing(group);
            break;
        case TOVRIN_STATE_STOPPING_UP_COMMANDS:
        case TOVRIN_STATE_STARTING_MEMBERS:
            conn_start_up_commands(group);
            break;
        default:
            break;
    }
}

// Are the members the group waits for down?
bool group_members_down(tovrin_conn *group) {
    if (group->group_part->currently_failing_over) {
        tovrin_conn *active = group_active_member(group);
        return active == nullptr || active->current_state == TOVRIN_STATE_DOWN;
    }
    for (const tovrin_link &link : group->group_part->members) {
        tovrin_conn *member = find(group, link.name);
        if (member != nullptr && member->current_state != TOVRIN_STATE_DOWN)
            return false;
    }
    return true;
}

// The end of a failover: the member failed over to becomes the active one.
void group_failover_finish(tovrin_conn *group) {
    tovrin_group_part &part = *group->group_part;
    std::string next = std::move(part.next_active_conn_name);
    part.next_active_conn_name.clear();
    // A failforward without a target leaves the active member as it is.
    if (!next.empty())
        tovrin_group_set_active(group, std::move(next));
    tovrin_group_publish_failover_timestamp(group);
    part.currently_failing_over = false;
}

void group_stop_members(tovrin_conn *group) {
    if (tovrin_conn_has_queued_up_actions(group))
        return;
    state_set(group, TOVRIN_STATE_STOPPING_MEMBERS);
    if (tovrin_conn_count_members_not_down(group) == 0) {
        send_self(group, TOVRIN_MSG_CHECK_STOP);
    } else if (group->group_part->currently_failing_over) {
        if (tovrin_conn *active = group_active_member(group))
            send(group, active, TOVRIN_MSG_STOP);
    } else {
        for (const tovrin_link &link : group->group_part->members) {
            if (tovrin_conn *member = find(group, link.name))
                send(group, member, TOVRIN_MSG_STOP);
        }
    }
}

void group_members_stopped(tovrin_conn *group) {
    if (!group_members_down(group)) {
        if (mask_has(group, TOVRIN_LOG_OTHERTRANSITIONS))
            tovrin_log(TOVRIN_LOG_INFO, "group %s is waiting on members to come down",
                       group->name.c_str());
        return;
    }
    state_set(group, TOVRIN_STATE_STOPPING);
    if (tovrin_conn_has_queued_up_actions(group)) {
        timer_slot &delay = group->command_part->up_action_failed_delay_event;
        if (!delay.initialized())
            tovrin_log(TOVRIN_LOG_WARN,
                       "%d %s(%d) up_action_failed_delay_event not initialized, skip deleting it",
                       1893, group->name.c_str(), group->type);
        else
            delay.del();
    }
    if (tovrin_conn_has_actions(group, TOVRIN_ACTION_TEST))
        tovrin_conn_cancel_tests(group);
    conn_queue_stop(group);
}

}  // namespace

void tovrin_conn_start(tovrin_conn *conn) {
    if (conn == nullptr)
        return;
    tovrin_inst *inst = conn->inst;
    if (inst->reloading_config) {
        if (inst->globals != nullptr &&
            (inst->globals->instance_log_mask & TOVRIN_INST_LOG_DEBUGMESSAGES) != 0)
            tovrin_log(TOVRIN_LOG_INFO, "%s: not handling start message during config reloading",
                       conn->name.c_str());
        conn->start_after_reload = true;
        return;
    }
    conn->restart_after_stopping = false;
    if (conn->group_part != nullptr)
        conn->group_part->currently_failing_over = false;
    if (!tovrin_conn_check_group(conn, TOVRIN_GROUP_START))
        return;
    if (is_group(conn))
        group_start_by_state(conn);
    else
        conn_start_by_state(conn);
    tovrin_conn_run_queue(conn);
}

void tovrin_conn_stop(tovrin_conn *conn) {
    if (conn == nullptr)
        return;
    if (is_group(conn)) {
        tovrin_group_stop(conn);
        return;
    }
    switch (conn->current_state) {
        case TOVRIN_STATE_DOWN:
            if (conn->restart_after_stopping)
                send_self(conn, TOVRIN_MSG_START);
            break;
        case TOVRIN_STATE_WAITING_TO_START:
        case TOVRIN_STATE_STOPPING:
            if (conn->n_queued_stop_actions <= 0)
                conn_set_down(conn);
            break;
        case TOVRIN_STATE_STARTING:
        case TOVRIN_STATE_STARTING_UP_COMMANDS:
        case TOVRIN_STATE_TESTING:
        case TOVRIN_STATE_TESTED:
        case TOVRIN_STATE_UP:
            conn_set_waiting_to_stop(conn);
            break;
        case TOVRIN_STATE_WAITING_TO_STOP:
            conn_stop_up_commands(conn);
            break;
        case TOVRIN_STATE_STOPPING_UP_COMMANDS:
            if (!tovrin_conn_has_queued_up_actions(conn)) {
                state_set(conn, TOVRIN_STATE_STOPPING);
                conn_queue_stop(conn);
            }
            break;
        default:
            break;
    }
    tovrin_conn_run_queue(conn);
}

void tovrin_group_stop(tovrin_conn *group) {
    if (group == nullptr)
        return;
    if (!is_group(group)) {
        tovrin_log(TOVRIN_LOG_ERROR, "tovrin_group_stop called with a conn %s",
                   group->name.empty() ? "(corrupted conn_name)" : group->name.c_str());
        return;
    }
    switch (group->current_state) {
        case TOVRIN_STATE_DOWN:
            if (group->restart_after_stopping)
                send_self(group, TOVRIN_MSG_START);
            break;
        case TOVRIN_STATE_WAITING_TO_START:
        case TOVRIN_STATE_STOPPING:
            if (group->n_queued_stop_actions > 0)
                break;
            if (group->group_part->currently_failing_over)
                group_failover_finish(group);
            conn_set_down(group);
            break;
        case TOVRIN_STATE_STARTING:
        case TOVRIN_STATE_STARTING_UP_COMMANDS:
        case TOVRIN_STATE_TESTING:
        case TOVRIN_STATE_TESTED:
        case TOVRIN_STATE_UP:
        case TOVRIN_STATE_STARTING_MEMBERS:
            if (group->type == TOVRIN_ORDEREDGROUP)
                tovrin_group_cancel_failover(group);
            conn_set_waiting_to_stop(group);
            break;
        case TOVRIN_STATE_WAITING_TO_STOP:
            conn_stop_up_commands(group);
            break;
        case TOVRIN_STATE_STOPPING_UP_COMMANDS:
            group_stop_members(group);
            break;
        case TOVRIN_STATE_STOPPING_MEMBERS:
            group_members_stopped(group);
            break;
        default:
            break;
    }
    tovrin_conn_run_queue(group);
}

void tovrin_conn_check_start(tovrin_conn *conn) {
    if (tovrin_conn_is_active(conn))
        tovrin_conn_start(conn);
}

void tovrin_conn_check_stop(tovrin_conn *conn) {
    if (tovrin_conn_is_stopping(conn))
        tovrin_conn_stop(conn);
}

void tovrin_conn_restart(tovrin_conn *conn) {
    if (conn == nullptr)
        return;
    conn->restart_after_stopping = true;
    switch (conn->current_state) {
        case TOVRIN_STATE_DOWN:
            tovrin_conn_start(conn);
            break;
        case TOVRIN_STATE_WAITING_TO_START:
        case TOVRIN_STATE_STARTING:
        case TOVRIN_STATE_STARTING_UP_COMMANDS:
        case TOVRIN_STATE_TESTING:
        case TOVRIN_STATE_TESTED:
        case TOVRIN_STATE_UP:
        case TOVRIN_STATE_STARTING_MEMBERS:
            tovrin_conn_stop(conn);
            break;
        default:
            // Already stopping: it starts again once down.
            break;
    }
    tovrin_conn_run_queue(conn);
}

void tovrin_group_member_down(tovrin_conn *group) {
    if (group == nullptr)
        return;
    if (group->type == TOVRIN_ANYGROUP) {
        if (!any_member_up(group))
            tovrin_conn_stop(group);
    } else if (group->type == TOVRIN_ORDEREDGROUP) {
        group_ensure_active(group);
        if (tovrin_conn_is_stopping(group))
            tovrin_conn_check_stop(group);
    } else {
        tovrin_log(TOVRIN_LOG_FATAL, "conn %s has been incorrectly told to check it's members",
                   group->name.c_str());
    }
}
