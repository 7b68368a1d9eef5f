#pragma once

#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "command/file_dep.h"
#include "command/var.h"
#include "daemon/event_slot.h"
#include "supervise/action.h"
#include "supervise/link_list.h"

struct tovrin_inst;

enum tovrin_conn_type {
    TOVRIN_CONN = 0,
    TOVRIN_ANYGROUP = 1,
    TOVRIN_ORDEREDGROUP = 2,
};

constexpr int TOVRIN_N_VAR_LISTS = 5;

using tovrin_action_list = std::vector<std::unique_ptr<tovrin_action>>;
using tovrin_queued_action_list = std::list<std::unique_ptr<tovrin_queued_action>>;

// What only groups have: their members, the failover settings and the
// state of a failover. Made with the group, so a plain conn carries one
// pointer instead; never moves, since its timers are embedded.
struct tovrin_group_part {
    tovrin_group_part() = default;
    tovrin_group_part(const tovrin_group_part &) = delete;
    tovrin_group_part &operator=(const tovrin_group_part &) = delete;

    int failforwardperiod = 600;
    int failovertimeout = 300;
    int mutex = 0;
    bool failforward_ready = false;
    bool currently_failing_over = false;
    timer_slot failforward_event;
    timer_slot failover_event;
    tovrin_link_list members;
    std::string active_conn_name;  // empty: none
    std::string next_active_conn_name;
};

// A conn's commands, the entries queued from them and the timer of its test
// runs. Made with its first command, so the conns without any carry one
// pointer instead; a queued entry exists only for a command, and tests run
// only for test commands, so a conn without this part never has either.
// Never moves, since its timers are embedded.
struct tovrin_command_part {
    tovrin_command_part() = default;
    tovrin_command_part(const tovrin_command_part &) = delete;
    tovrin_command_part &operator=(const tovrin_command_part &) = delete;

    tovrin_action_list start_actions;
    tovrin_action_list stop_actions;
    tovrin_action_list test_actions;
    tovrin_action_list up_actions;
    tovrin_queued_action_list queued_actions;
    tovrin_queued_action_list queued_up_actions;
    timer_slot test_event;
    timer_slot up_action_failed_delay_event;
};

// A conn's variables and file dependencies, clauses most conns have none
// of. Made with the first of them, so the others carry one pointer instead.
struct tovrin_var_part {
    std::array<tovrin_var_list, TOVRIN_N_VAR_LISTS> vars;
    std::vector<tovrin_file_dep> file_deps;
};

// A conn, a group (type 1 or 2) or a deaf placeholder for a name that is
// referenced but never defined. Owned by the instance list it is in; holds
// events, so it never moves. Relations to other conns are names only.
// Fields are ordered to waste little on padding: while a reload compares
// them there are two records for each of possibly tens of thousands of conns.
struct tovrin_conn {
    // Makes the group part for any type but a plain conn; may throw
    // std::bad_alloc.
    tovrin_conn(tovrin_inst *owner, std::string_view conn_name, int conn_type);
    tovrin_conn(const tovrin_conn &) = delete;
    tovrin_conn &operator=(const tovrin_conn &) = delete;

    tovrin_inst *inst;
    const std::string name;
    const int type;
    int previous_state = 0;
    int current_state = 0;
    int testperiod = 30;
    uint64_t log_mask = 0;
    int testdelay = 30;
    int testtimeout = 30;
    int testthreshold = 1;
    int commandtimeout = 60;
    int n_queued_stop_actions = 0;
    int n_queued_start_actions = 0;
    int n_queued_test_actions = 0;
    int n_test_failures = 0;
    int n_test_passes = 0;
    int maxrestarts = -1;  // negative: no limit
    int restartdelayfactor = 0;
    int config_line = 0;  // line of its header in the file it came from; 0 when deaf
    bool is_deaf = false;
    bool current_test_run_has_failure = false;
    bool restart_after_stopping = false;
    bool start_after_reload = false;
    tovrin_link_list parents;
    tovrin_link_list children;
    std::string group_name;  // empty: none
    // Groups only (any type but a plain conn); set once, with the record.
    const std::unique_ptr<tovrin_group_part> group_part;
    // Null until the first command clause; then kept as long as the record.
    std::unique_ptr<tovrin_command_part> command_part;
    // Null until the first variable or file dependency; then kept as long
    // as the record.
    std::unique_ptr<tovrin_var_part> var_part;
    // Place in conns or new_conns, and in that list's name index; kept by
    // tovrin_conn_list alone.
    tovrin_conn *list_prev = nullptr;
    tovrin_conn *list_next = nullptr;
    tovrin_conn *index_next = nullptr;
};

// A conn record with the given settings and the default log mask of the
// configuration being parsed (new_globals), in no list; null after logging
// "Could not allocate conn".
std::unique_ptr<tovrin_conn> tovrin_conn_new(tovrin_inst *inst, std::string_view name, int type,
                                             int commandtimeout, int testperiod, int testdelay,
                                             int testtimeout, int testthreshold, int maxrestarts,
                                             int restartdelayfactor);

// Appends a deaf placeholder conn named name to new_conns; null after logging.
tovrin_conn *tovrin_conn_add_deaf(tovrin_inst *inst, std::string_view name);

// Appends a group of the given type to new_conns; null after logging.
tovrin_conn *tovrin_group_add(tovrin_inst *inst, std::string_view name, int type);

// The conn's commands of one type (a tovrin_action_type), or null when it
// has none of them.
tovrin_action_list *tovrin_conn_actions(tovrin_conn *conn, int type);
const tovrin_action_list *tovrin_conn_actions(const tovrin_conn *conn, int type);
bool tovrin_conn_has_actions(const tovrin_conn *conn, int type);

// Appends a configured command to the list of its type, making the command
// part with the first one; one of no command type is dropped. May throw
// std::bad_alloc, leaving the conn as it was.
void tovrin_conn_append_action(tovrin_conn *conn, std::unique_ptr<tovrin_action> action);

// The conn's variable part, made when it has none yet. May throw
// std::bad_alloc, leaving the conn as it was.
tovrin_var_part &tovrin_conn_var_part(tovrin_conn *conn);

// The head of the conn's action queue, or null when nothing is queued.
tovrin_queued_action *tovrin_conn_queue_head(const tovrin_conn *conn);
// Whether any up command of the conn is queued or running.
bool tovrin_conn_has_queued_up_actions(const tovrin_conn *conn);

// Each appends a copy of name to its list unless it is already there; a
// link that cannot be made is logged and left out.
void tovrin_conn_add_parent(tovrin_conn *conn, std::string_view name);
void tovrin_conn_add_child(tovrin_conn *conn, std::string_view name);
// A conn that is not a group takes no members.
void tovrin_group_add_member(tovrin_conn *conn, std::string_view name);

// Records the conn's group; a second one is refused and the first kept.
void tovrin_conn_set_group(tovrin_conn *conn, const std::string &name);

// The first conn in force (never a pending one) named name; null, logged when
// the name is not found.
tovrin_conn *tovrin_conn_find(tovrin_inst *inst, const std::string &name);

// Waiting to start through up, or starting members.
bool tovrin_conn_is_active(const tovrin_conn *conn);
// Down, or on the way down.
bool tovrin_conn_is_stopping(const tovrin_conn *conn);
// The conn has a group that is not yet far enough in starting to take it.
bool tovrin_conn_group_needs_start(const tovrin_conn *conn);

// Counting queries over links; names not found are skipped.
int tovrin_conn_count_parents_not_up(tovrin_conn *conn);
int tovrin_conn_count_members_not_down(tovrin_conn *conn);
int tovrin_conn_count_children_started(tovrin_conn *conn);
