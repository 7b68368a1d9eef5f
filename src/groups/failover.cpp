#include "groups/failover.h"

#include <string>

#include "daemon/log.h"
#include "daemon/log_mask.h"
#include "store/status.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/message.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"
#include "supervise/state_machine.h"

namespace {

enum {
    SITE_FAILOVER_CANCEL_NOT_INITIALIZED = 1469,
    SITE_FAILFORWARD_CANCEL_NOT_INITIALIZED = 1495,
    SITE_FAILOVER_NOT_INITIALIZED = 1510,
    SITE_FAILOVER_ALREADY_SCHEDULED = 1513,
    SITE_FAILFORWARD_NOT_INITIALIZED = 1537,
    SITE_FAILFORWARD_ALREADY_SCHEDULED = 1540,
};

bool logs(const tovrin_conn *group, uint64_t bit) {
    return (group->log_mask & bit) != 0;
}

tovrin_conn *find_member(tovrin_conn *group, const std::string &name) {
    return tovrin_conn_find(group->inst, name);
}

tovrin_conn *active_member(tovrin_conn *group) {
    const std::string &active = group->group_part->active_conn_name;
    return active.empty() ? nullptr : find_member(group, active);
}

bool is_up(const tovrin_conn *conn) {
    return conn != nullptr && conn->current_state == TOVRIN_STATE_UP;
}

// The member in the list, not the string the caller holds: names that become
// active or next-active are always copies of a member's name.
const tovrin_link *member_named(const tovrin_conn *group, const std::string &name) {
    for (const tovrin_link &link : group->group_part->members) {
        if (link.name == name)
            return &link;
    }
    return nullptr;
}

// Which of a group's two timers; their messages differ in more than the
// name, so each is spelled out whole.
enum group_timer { FAILOVER, FAILFORWARD };

timer_slot &slot_of(tovrin_conn *group, group_timer timer) {
    tovrin_group_part &part = *group->group_part;
    return timer == FAILOVER ? part.failover_event : part.failforward_event;
}

void arm(tovrin_conn *group, group_timer timer, int seconds) {
    timer_slot &slot = slot_of(group, timer);
    const char *name = group->name.c_str();
    if (!slot.initialized()) {
        if (timer == FAILOVER)
            tovrin_log(TOVRIN_LOG_WARN,
                       "%d %s(%d) failover_event not initialized yet, set and add it",
                       SITE_FAILOVER_NOT_INITIALIZED, name, group->type);
        else
            tovrin_log(TOVRIN_LOG_WARN,
                       "%d %s(%d) failforward_event not initialized yet, set and add it",
                       SITE_FAILFORWARD_NOT_INITIALIZED, name, group->type);
    } else if (slot.pending()) {
        if (timer == FAILOVER)
            tovrin_log(TOVRIN_LOG_FATAL, "%d %s(%d) failover_event already scheduled",
                       SITE_FAILOVER_ALREADY_SCHEDULED, name, group->type);
        else
            tovrin_log(TOVRIN_LOG_FATAL, "%d %s (%d)failforward_event already scheduled",
                       SITE_FAILFORWARD_ALREADY_SCHEDULED, name, group->type);
        return;
    }
    if (timer == FAILOVER)
        slot.set<tovrin_group_failover_timeout>();
    else
        slot.set<tovrin_group_failforward_timeout>();
    slot.add_seconds(*group->inst->clock, group->inst->base.get(), group, seconds);
}

void cancel(tovrin_conn *group, group_timer timer) {
    const char *name = group->name.c_str();
    if (group->type != TOVRIN_ORDEREDGROUP) {
        tovrin_log(
            TOVRIN_LOG_FATAL, "%s: incorrectly called with %s",
            timer == FAILOVER ? "tovrin_group_cancel_failover" : "tovrin_group_cancel_failforward",
            name);
        return;
    }
    timer_slot &slot = slot_of(group, timer);
    if (!slot.initialized()) {
        if (timer == FAILOVER)
            tovrin_log(TOVRIN_LOG_WARN,
                       "%d %s(%d) failover_event not initialized yet, skip deleting it",
                       SITE_FAILOVER_CANCEL_NOT_INITIALIZED, name, group->type);
        else
            tovrin_log(TOVRIN_LOG_WARN,
                       "%d %s(%d) failforward_event not initialized yet, skip deleting it",
                       SITE_FAILFORWARD_CANCEL_NOT_INITIALIZED, name, group->type);
        return;
    }
    slot.del();
}

// Both moves end the same way: the group restarts, its stop takes down only
// the active member and then hands the group to next_active_conn_name.
void restart_failing_over(tovrin_conn *group) {
    group->group_part->currently_failing_over = true;
    tovrin_conn_restart(group);
}

}  // namespace

void tovrin_group_arm_failover(tovrin_conn *group, int seconds) {
    arm(group, FAILOVER, seconds);
}

void tovrin_group_arm_failforward(tovrin_conn *group, int seconds) {
    arm(group, FAILFORWARD, seconds);
}

void tovrin_group_cancel_failover(tovrin_conn *group) {
    cancel(group, FAILOVER);
}

void tovrin_group_cancel_failforward(tovrin_conn *group) {
    cancel(group, FAILFORWARD);
}

void tovrin_group_failover_timeout(evutil_socket_t, short, void *arg) {
    auto *group = static_cast<tovrin_conn *>(arg);
    if (group->type != TOVRIN_ORDEREDGROUP)
        return;
    if (group->group_part->active_conn_name.empty()) {
        tovrin_group_cancel_failover(group);
        tovrin_group_reset_active(group);
        tovrin_conn_restart(group);
        return;
    }
    tovrin_conn *active = active_member(group);
    if (active == nullptr || is_up(active))
        return;
    if (logs(group, TOVRIN_LOG_FAILOVER)) {
        tovrin_log(TOVRIN_LOG_INFO, "group %s member %s failed to come up before timeout",
                   group->name.c_str(), active->name.c_str());
    }
    tovrin_group_ordered_failover(group);
}

void tovrin_group_member_failed(tovrin_conn *group) {
    if (group->type == TOVRIN_ANYGROUP) {
        for (const tovrin_link &link : group->group_part->members) {
            if (is_up(find_member(group, link.name)))
                return;
        }
        tovrin_conn_stop(group);
        return;
    }
    if (group->type != TOVRIN_ORDEREDGROUP) {
        tovrin_log(TOVRIN_LOG_FATAL, "conn %s has been incorrectly told to check its members",
                   group->name.c_str());
        return;
    }
    if (group->group_part->active_conn_name.empty())
        tovrin_group_reset_active(group);
    if (tovrin_conn_is_active(group)) {
        tovrin_conn *active = active_member(group);
        if (active == nullptr || is_up(active))
            return;
        if (logs(group, TOVRIN_LOG_FAILOVER))
            tovrin_log(TOVRIN_LOG_INFO, "group %s has failed", group->name.c_str());
        tovrin_group_ordered_failover(group);
    } else {
        tovrin_conn_check_stop(group);
    }
}

void tovrin_group_ordered_failover(tovrin_conn *group) {
    if (group->type != TOVRIN_ORDEREDGROUP) {
        tovrin_log(TOVRIN_LOG_FATAL, "tovrin_group_ordered_failover called with incorrect group %s",
                   group->name.c_str());
        return;
    }
    tovrin_group_part &part = *group->group_part;
    tovrin_group_cancel_failover(group);
    tovrin_group_cancel_failforward(group);
    if (part.active_conn_name.empty())
        tovrin_group_reset_active(group);
    if (part.active_conn_name.empty() || part.members.empty()) {
        if (logs(group, TOVRIN_LOG_FAILOVER)) {
            tovrin_log(TOVRIN_LOG_INFO, "group %s can't failover with no members",
                       group->name.c_str());
        }
        tovrin_conn_stop(group);
        return;
    }

    const tovrin_link *target = nullptr;
    if (group->inst->reloading_config) {
        if (logs(group, TOVRIN_LOG_FAILOVER)) {
            tovrin_log(TOVRIN_LOG_INFO,
                       "group %s failover during reloading, keeping current active member %s",
                       group->name.c_str(), part.active_conn_name.c_str());
        }
        target = member_named(group, part.active_conn_name);
    }
    if (target == nullptr) {
        auto it = part.members.begin();
        while (it != part.members.end() && it->name != part.active_conn_name)
            ++it;
        if (it != part.members.end())
            ++it;
        if (it == part.members.end()) {
            if (logs(group, TOVRIN_LOG_FAILOVER))
                tovrin_log(TOVRIN_LOG_INFO, "group %s members all failed", group->name.c_str());
            it = part.members.begin();
        }
        target = &*it;
    }

    tovrin_conn *target_conn = find_member(group, target->name);
    if (target_conn == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "tovrin_ordered_failover: unknown member name %s",
                   target->name.c_str());
        return;
    }
    if (logs(group, TOVRIN_LOG_FAILOVER)) {
        tovrin_log(TOVRIN_LOG_INFO, "group %s failing over to %s", group->name.c_str(),
                   target_conn->name.c_str());
    }
    part.next_active_conn_name = target->name;
    restart_failing_over(group);

    part.failforward_ready = false;
    if (part.failforwardperiod != 0)
        tovrin_group_arm_failforward(group, part.failforwardperiod);
    else
        part.failforward_ready = true;
}

void tovrin_group_failforward_timeout(evutil_socket_t, short, void *arg) {
    auto *group = static_cast<tovrin_conn *>(arg);
    group->group_part->failforward_ready = true;
    tovrin_group_member_tested(group);
}

void tovrin_group_member_tested(tovrin_conn *group) {
    if (group->type != TOVRIN_ORDEREDGROUP || !group->group_part->failforward_ready)
        return;
    tovrin_group_part &part = *group->group_part;
    if (part.active_conn_name.empty()) {
        tovrin_group_failforward(group);
        return;
    }
    if (part.members.empty())
        return;

    if (group->inst->reloading_config) {
        tovrin_conn *active = active_member(group);
        part.next_active_conn_name = active != nullptr ? active->name : std::string();
        tovrin_group_failforward(group);
        return;
    }
    if (part.mutex != 0) {
        const tovrin_link &first = part.members.front();
        if (first.name == part.active_conn_name)
            return;
        part.next_active_conn_name =
            find_member(group, first.name) != nullptr ? first.name : std::string();
        tovrin_group_failforward(group);
        return;
    }
    // A standby earlier in the list than the active member that has passed
    // its tests is preferred: move back to it.
    for (const tovrin_link &link : part.members) {
        if (link.name == part.active_conn_name)
            return;
        tovrin_conn *member = find_member(group, link.name);
        if (member != nullptr && (member->current_state == TOVRIN_STATE_TESTED ||
                                  member->current_state == TOVRIN_STATE_UP)) {
            part.next_active_conn_name = link.name;
            tovrin_group_failforward(group);
            return;
        }
    }
}

void tovrin_group_failforward(tovrin_conn *group) {
    if (group->type != TOVRIN_ORDEREDGROUP) {
        tovrin_log(TOVRIN_LOG_FATAL,
                   "tovrin_group_failforward: Non-ordered group failover groups not yet "
                   "implemented");
        return;
    }
    const std::string &next = group->group_part->next_active_conn_name;
    if (next.empty()) {
        tovrin_group_reset_active(group);
    } else if (logs(group, TOVRIN_LOG_FAILFORWARD)) {
        tovrin_log(TOVRIN_LOG_INFO, "group %s trying to failforward to %s", group->name.c_str(),
                   next.c_str());
    }
    tovrin_group_cancel_failforward(group);
    restart_failing_over(group);
}

namespace {

// Whether a failforward could still move a running group to another member:
// its timer is armed, or it is ready and waits for a member to report
// tested. A mutex group's standbys never start, so only its timer can,
// taking the group back to its first member. Without mutex the group goes
// back to the earliest member before the active one that is tested or up
// when a member reports, and any member listed before the active one may
// still get there.
bool failforward_may_move(tovrin_conn *group) {
    const tovrin_group_part &part = *group->group_part;
    const bool timer = part.failforward_event.pending();
    if (!timer && !part.failforward_ready)
        return false;
    if (part.members.empty())
        return false;
    if (part.mutex != 0)
        return timer && part.members.front().name != part.active_conn_name;
    for (const tovrin_link &link : part.members) {
        if (link.name == part.active_conn_name)
            return false;
        tovrin_conn *member = find_member(group, link.name);
        if (member != nullptr && !member->is_deaf)
            return true;
    }
    return false;
}

// Whether the restart an operator's failover gives the active member leaves
// member and group stuck for good. A member that has started but is not up
// goes to waiting to stop, where the group gate holds the active member for
// as long as the group runs, and it never reports leaving up; the group waits
// in turn for it to come up. Only the group's own timers could move either:
// its failover timer, armed now or on entering starting members; a
// failforward; or a reload's timer, which stops every conn.
bool external_failover_sticks(tovrin_conn *group, const tovrin_conn *member) {
    if (group->type != TOVRIN_ORDEREDGROUP)
        return false;
    switch (group->current_state) {
        case TOVRIN_STATE_STARTING:
        case TOVRIN_STATE_STARTING_UP_COMMANDS:
        case TOVRIN_STATE_TESTING:
        case TOVRIN_STATE_TESTED:
        case TOVRIN_STATE_UP:
        case TOVRIN_STATE_STARTING_MEMBERS:
            break;
        default:
            return false;
    }
    if (!tovrin_conn_is_active(member) || member->current_state == TOVRIN_STATE_WAITING_TO_START ||
        member->current_state == TOVRIN_STATE_UP)
        return false;
    const tovrin_group_part &part = *group->group_part;
    if (part.failover_event.pending())
        return false;
    if (group->current_state == TOVRIN_STATE_STARTING && part.failovertimeout != 0)
        return false;
    if (group->inst->config_reload_timer.pending())
        return false;
    return !failforward_may_move(group);
}

}  // namespace

int tovrin_conn_external_failover(tovrin_conn *conn) {
    if (logs(conn, TOVRIN_LOG_EXTERNALCOMMANDS))
        tovrin_log(TOVRIN_LOG_INFO, "external failover command received for %s",
                   conn->name.c_str());
    // Only groups have an active member.
    if (conn->group_part != nullptr && !conn->group_part->active_conn_name.empty()) {
        // A missing member is logged by the lookup and the message dropped.
        tovrin_conn *member = tovrin_conn_find(conn->inst, conn->group_part->active_conn_name);
        tovrin_conn_deliver_message(conn->inst, nullptr, member, TOVRIN_MSG_RESTART);
        if (member != nullptr && external_failover_sticks(conn, member))
            tovrin_conn_deliver_message(conn->inst, member, conn, TOVRIN_MSG_MEMBER_FAILED);
    }
    return 0;
}

void tovrin_group_abandon_failover(tovrin_conn *group) {
    if (group->type != TOVRIN_ORDEREDGROUP || group->current_state != TOVRIN_STATE_STOPPING_MEMBERS)
        return;
    // A reload's timer stops every conn when it fires, the standbys among
    // them. A failforward cannot come: the stop or restart that ended the
    // failover cancelled its timer, and no member reports tested while the
    // group stops its members, since none of them may start.
    if (group->inst->config_reload_timer.pending())
        return;
    const tovrin_group_part &part = *group->group_part;
    for (const tovrin_link &link : part.members) {
        if (link.name == part.active_conn_name)
            continue;
        tovrin_conn *member = find_member(group, link.name);
        if (member != nullptr && tovrin_conn_is_active(member))
            tovrin_conn_deliver_message(group->inst, group, member, TOVRIN_MSG_STOP);
    }
}
