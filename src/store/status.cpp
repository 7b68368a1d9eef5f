#include "store/status.h"

#include <ctime>
#include <new>
#include <optional>
#include <string>

#include "config/graph_dump.h"
#include "daemon/log.h"
#include "store/store_link.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/state.h"

namespace {

// Group keys and values are built in 1,024-byte buffers by the appliance's
// readers' convention: anything longer is cut there.
constexpr size_t group_text_max = 1023;

std::string cut(std::string text) {
    if (text.size() > group_text_max)
        text.resize(group_text_max);
    return text;
}

// Sets one of a group's keys. A request that cannot be built is dropped and
// reported as one that cannot be queued; the caller goes on either way, so
// a failover never stops half way for a key.
void group_key_set(tovrin_conn *group, const char *suffix, const std::string &value) {
    try {
        std::string key = cut("tovrin." + group->name + suffix);
        tovrin_store_send(group->inst, TOVRIN_STORE_SET, key.c_str(), 1, cut(value).c_str());
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "could not allocate message");
    }
}

// The members' names joined by commas, cut at the length a key may have;
// nullopt (reported) when the list cannot be built.
std::optional<std::string> member_names(const tovrin_conn *group) {
    try {
        std::string names;
        for (const tovrin_link &member : group->group_part->members) {
            if (names.size() >= group_text_max)
                break;
            if (!names.empty())
                names += ',';
            names += member.name;
        }
        return cut(std::move(names));
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "could not allocate message");
        return std::nullopt;
    }
}

}  // namespace

void tovrin_publish_status(tovrin_conn *conn) {
    const char *state = tovrin_state_name(conn->current_state);
    std::string prefix;
    try {
        prefix = "tovrin." + conn->name;
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "failed to allocate status message");
        return;
    }
    // Without a key nothing is sent, silently; the transition is still
    // logged and recorded.
    try {
        std::string key = prefix + ".status";
        tovrin_store_send(conn->inst, TOVRIN_STORE_SET, key.c_str(), 2, state);
    } catch (const std::bad_alloc &) {
    }
    if ((conn->log_mask & TOVRIN_LOG_OTHERTRANSITIONS) != 0)
        tovrin_log(TOVRIN_LOG_INFO, "%s is now %s", conn->name.c_str(), state);
    tovrin_mq_snapshot(conn->inst, nullptr, nullptr, nullptr, 0);
}

void tovrin_remove_status(tovrin_conn *conn) {
    try {
        std::string key = "tovrin." + conn->name + ".status";
        tovrin_store_send(conn->inst, TOVRIN_STORE_DELETE, key.c_str(), 0, nullptr);
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "failed to allocate status message");
    }
}

void tovrin_group_set_active(tovrin_conn *group, std::string name) {
    tovrin_group_part &part = *group->group_part;
    part.active_conn_name = std::move(name);
    int position = 0;
    for (const tovrin_link &member : part.members) {
        if (!part.active_conn_name.empty() && member.name == part.active_conn_name) {
            group_key_set(group, ".active-connection-index", std::to_string(position));
            group_key_set(group, ".active-connection-name", part.active_conn_name);
        }
        position++;
    }
    if (std::optional<std::string> names = member_names(group))
        group_key_set(group, ".connection-names", *names);
}

void tovrin_group_reset_active(tovrin_conn *group) {
    tovrin_group_part &part = *group->group_part;
    if (!part.members.empty())
        tovrin_group_set_active(group, part.members.front().name);
    part.next_active_conn_name.clear();
}

void tovrin_group_publish_failover_timestamp(tovrin_conn *group) {
    group_key_set(group, ".failover-timestamp",
                  std::to_string(static_cast<long>(group->inst->clock->wall().tv_sec)));
}
