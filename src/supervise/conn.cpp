#include "supervise/conn.h"

#include <new>
#include <utility>

#include "daemon/log.h"
#include "supervise/inst.h"
#include "supervise/state.h"

tovrin_conn::tovrin_conn(tovrin_inst *owner, std::string_view conn_name, int conn_type)
    : inst(owner),
      name(conn_name),
      type(conn_type),
      group_part(conn_type != TOVRIN_CONN ? std::make_unique<tovrin_group_part>() : nullptr) {}

std::unique_ptr<tovrin_conn> tovrin_conn_new(tovrin_inst *inst, std::string_view name, int type,
                                             int commandtimeout, int testperiod, int testdelay,
                                             int testtimeout, int testthreshold, int maxrestarts,
                                             int restartdelayfactor) {
    std::unique_ptr<tovrin_conn> conn;
    try {
        conn = std::make_unique<tovrin_conn>(inst, name, type);
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate conn");
        return nullptr;
    }
    conn->commandtimeout = commandtimeout;
    conn->testperiod = testperiod;
    conn->testdelay = testdelay;
    conn->testtimeout = testtimeout;
    conn->testthreshold = testthreshold;
    conn->maxrestarts = maxrestarts;
    conn->restartdelayfactor = restartdelayfactor;
    // Conns are made only while a configuration is parsed, so the default
    // mask is the one of the configuration being read.
    if (inst != nullptr && inst->new_globals != nullptr)
        conn->log_mask = inst->new_globals->default_log_mask;
    return conn;
}

namespace {

// A conn with the defaults every definition starts from, appended to
// new_conns; null after logging "Could not add conn".
tovrin_conn *conn_append_default(tovrin_inst *inst, std::string_view name, int type) {
    std::unique_ptr<tovrin_conn> conn = tovrin_conn_new(inst, name, type, 60, 30, 30, 30, 1, -1, 0);
    if (conn == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not add conn");
        return nullptr;
    }
    try {
        return inst->new_conns.push_back(std::move(conn));
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not add conn");
        return nullptr;
    }
}

// Appends name to one of a conn's link lists. A link that cannot be made is
// reported as a link, then as the relation it was for.
void link_add(tovrin_link_list &links, std::string_view name, const char *message) {
    if (name.empty())
        return;
    try {
        links.add(std::string(name));
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate link name");
        tovrin_log(TOVRIN_LOG_FATAL, "%s", message);
    }
}

}  // namespace

tovrin_conn *tovrin_conn_add_deaf(tovrin_inst *inst, std::string_view name) {
    tovrin_conn *conn = conn_append_default(inst, name, TOVRIN_CONN);
    if (conn == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not add deaf conn");
        return nullptr;
    }
    conn->is_deaf = true;
    return conn;
}

tovrin_conn *tovrin_group_add(tovrin_inst *inst, std::string_view name, int type) {
    tovrin_conn *group = conn_append_default(inst, name, type);
    if (group == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not add group");
        return nullptr;
    }
    return group;
}

namespace {

// The list of a command part that holds commands of type (const or not, as
// the part); null without a part or for a type that is no command.
template <typename Part>
auto part_actions(Part *part, int type) -> decltype(&part->start_actions) {
    if (part == nullptr)
        return nullptr;
    switch (type) {
        case TOVRIN_ACTION_START:
            return &part->start_actions;
        case TOVRIN_ACTION_STOP:
            return &part->stop_actions;
        case TOVRIN_ACTION_TEST:
            return &part->test_actions;
        case TOVRIN_ACTION_UP:
            return &part->up_actions;
        default:
            return nullptr;
    }
}

}  // namespace

tovrin_action_list *tovrin_conn_actions(tovrin_conn *conn, int type) {
    return part_actions(conn->command_part.get(), type);
}

const tovrin_action_list *tovrin_conn_actions(const tovrin_conn *conn, int type) {
    return part_actions<const tovrin_command_part>(conn->command_part.get(), type);
}

bool tovrin_conn_has_actions(const tovrin_conn *conn, int type) {
    const tovrin_action_list *list = tovrin_conn_actions(conn, type);
    return list != nullptr && !list->empty();
}

void tovrin_conn_append_action(tovrin_conn *conn, std::unique_ptr<tovrin_action> action) {
    // The part is kept only once the command is in it, so a failure leaves
    // a conn without commands as it was.
    std::unique_ptr<tovrin_command_part> made;
    tovrin_command_part *part = conn->command_part.get();
    if (part == nullptr) {
        made = std::make_unique<tovrin_command_part>();
        part = made.get();
    }
    tovrin_action_list *list = part_actions(part, action->type);
    if (list == nullptr)
        return;
    list->push_back(std::move(action));
    if (made != nullptr)
        conn->command_part = std::move(made);
}

tovrin_var_part &tovrin_conn_var_part(tovrin_conn *conn) {
    if (conn->var_part == nullptr)
        conn->var_part = std::make_unique<tovrin_var_part>();
    return *conn->var_part;
}

tovrin_queued_action *tovrin_conn_queue_head(const tovrin_conn *conn) {
    const tovrin_command_part *part = conn->command_part.get();
    return part == nullptr || part->queued_actions.empty() ? nullptr
                                                           : part->queued_actions.front().get();
}

bool tovrin_conn_has_queued_up_actions(const tovrin_conn *conn) {
    return conn->command_part != nullptr && !conn->command_part->queued_up_actions.empty();
}

void tovrin_conn_add_parent(tovrin_conn *conn, std::string_view name) {
    if (conn != nullptr)
        link_add(conn->parents, name, "Could not allocate parent");
}

void tovrin_conn_add_child(tovrin_conn *conn, std::string_view name) {
    if (conn != nullptr)
        link_add(conn->children, name, "Could not allocate child");
}

void tovrin_group_add_member(tovrin_conn *conn, std::string_view name) {
    if (conn != nullptr && conn->group_part != nullptr)
        link_add(conn->group_part->members, name, "Could not allocate member");
}

void tovrin_conn_set_group(tovrin_conn *conn, const std::string &name) {
    if (conn == nullptr)
        return;
    if (!conn->group_name.empty()) {
        tovrin_log(TOVRIN_LOG_FATAL, "Conn %s has multiple groups specified", conn->name.c_str());
        return;
    }
    try {
        conn->group_name = name;
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate group name");
    }
}

tovrin_conn *tovrin_conn_find(tovrin_inst *inst, const std::string &name) {
    if (inst == nullptr || name.empty())
        return nullptr;
    tovrin_conn *conn = inst->conns.find(name);
    if (conn == nullptr)
        tovrin_log(TOVRIN_LOG_FATAL, "couldn't find conn: %s", name.c_str());
    return conn;
}

bool tovrin_conn_is_active(const tovrin_conn *conn) {
    if (conn == nullptr)
        return false;
    int state = conn->current_state;
    return (state >= TOVRIN_STATE_WAITING_TO_START && state <= TOVRIN_STATE_UP) ||
           state == TOVRIN_STATE_STARTING_MEMBERS;
}

bool tovrin_conn_is_stopping(const tovrin_conn *conn) {
    if (conn == nullptr)
        return false;
    switch (conn->current_state) {
        case TOVRIN_STATE_DOWN:
        case TOVRIN_STATE_WAITING_TO_STOP:
        case TOVRIN_STATE_STOPPING_UP_COMMANDS:
        case TOVRIN_STATE_STOPPING:
        case TOVRIN_STATE_STOPPING_MEMBERS:
            return true;
        default:
            return false;
    }
}

bool tovrin_conn_group_needs_start(const tovrin_conn *conn) {
    if (conn == nullptr || conn->group_name.empty())
        return false;
    tovrin_conn *group = tovrin_conn_find(conn->inst, conn->group_name);
    if (group == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "group name \"%s\" not found", conn->group_name.c_str());
        return false;
    }
    switch (group->current_state) {
        case TOVRIN_STATE_STARTING_UP_COMMANDS:
        case TOVRIN_STATE_TESTING:
        case TOVRIN_STATE_TESTED:
        case TOVRIN_STATE_UP:
        case TOVRIN_STATE_STARTING_MEMBERS:
            return false;
        default:
            return true;
    }
}

namespace {

template <typename Pred>
int count_links(tovrin_conn *conn, const tovrin_link_list &links, Pred pred) {
    int n = 0;
    for (const tovrin_link &link : links) {
        tovrin_conn *other = tovrin_conn_find(conn->inst, link.name);
        if (other != nullptr && pred(other))
            n++;
    }
    return n;
}

}  // namespace

int tovrin_conn_count_parents_not_up(tovrin_conn *conn) {
    return count_links(conn, conn->parents,
                       [](const tovrin_conn *p) { return p->current_state != TOVRIN_STATE_UP; });
}

int tovrin_conn_count_members_not_down(tovrin_conn *conn) {
    if (conn->group_part == nullptr)
        return 0;
    return count_links(conn, conn->group_part->members,
                       [](const tovrin_conn *m) { return m->current_state != TOVRIN_STATE_DOWN; });
}

int tovrin_conn_count_children_started(tovrin_conn *conn) {
    return count_links(conn, conn->children, [](const tovrin_conn *c) {
        return c->current_state >= TOVRIN_STATE_STARTING;
    });
}
