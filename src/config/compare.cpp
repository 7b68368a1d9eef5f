#include "config/compare.h"

#include <iterator>

#include "daemon/log.h"
#include "supervise/conn.h"

namespace {

// The four ways two lists can differ, in the order they are looked for.
enum list_difference { LIST_ADDED, LIST_REMOVED, LIST_DIFFER, LIST_NUMBER };

// Lists are equal when both are empty or they match element by element in
// order. same(old, new) compares two elements (and may say why they differ);
// say(difference, old element or null) reports the first difference found.
template <typename List, typename Same, typename Say>
bool same_list(const List &old_list, const List &new_list, Same same, Say say) {
    auto o = std::begin(old_list), oe = std::end(old_list);
    auto n = std::begin(new_list), ne = std::end(new_list);
    if (o == oe && n != ne) {
        say(LIST_ADDED, nullptr);
        return false;
    }
    if (n == ne && o != oe) {
        say(LIST_REMOVED, nullptr);
        return false;
    }
    for (; o != oe && n != ne; ++o, ++n) {
        if (!same(*o, *n)) {
            say(LIST_DIFFER, &*o);
            return false;
        }
    }
    if (o != oe || n != ne) {
        say(LIST_NUMBER, nullptr);
        return false;
    }
    return true;
}

bool same_var(const char *conn, const std::unique_ptr<tovrin_var> &o,
              const std::unique_ptr<tovrin_var> &n) {
    const char *name = o->name.c_str();
    if (o->name != n->name) {
        tovrin_log(TOVRIN_LOG_DEBUG, "conn %s var %s name mismatch", conn, name);
        return false;
    }
    if (o->type != n->type) {
        tovrin_log(TOVRIN_LOG_DEBUG, "conn %s var %s type mismatch", conn, name);
        return false;
    }
    if (o->type == TOVRIN_VAR_STORD) {
        if (o->sub->stord_prefix != n->sub->stord_prefix) {
            tovrin_log(TOVRIN_LOG_DEBUG, "conn %s var %s stord_prefix %s mismatch", conn, name,
                       o->sub->stord_prefix.c_str());
            return false;
        }
    } else if (o->value != n->value) {
        tovrin_log(TOVRIN_LOG_DEBUG, "conn %s var %s value %s mismatch", conn, name,
                   o->value.c_str());
        return false;
    }
    return true;
}

// op and np are the variable parts of o and n.
bool same_vars(const tovrin_conn *o, const tovrin_var_part &op, const tovrin_var_part &np) {
    const char *conn = o->name.c_str();
    for (size_t i = 0; i < TOVRIN_N_VAR_LISTS; i++) {
        bool same = same_list(
            op.vars[i], np.vars[i],
            [conn](const auto &a, const auto &b) { return same_var(conn, a, b); },
            [conn](list_difference d, const void *) {
                if (d == LIST_ADDED || d == LIST_REMOVED)
                    tovrin_log(TOVRIN_LOG_DEBUG, "conn %s var mismatch", conn);
                else if (d == LIST_NUMBER)
                    tovrin_log(TOVRIN_LOG_DEBUG, "conn %s number of vars mismatch", conn);
            });
        if (!same)
            return false;
    }
    return true;
}

bool same_file_deps(const tovrin_var_part &op, const tovrin_var_part &np) {
    return same_list(
        op.file_deps, np.file_deps,
        [](const tovrin_file_dep &a, const tovrin_file_dep &b) {
            return a.path == b.path && a.checksum == b.checksum;
        },
        [](list_difference d, const void *) {
            switch (d) {
                case LIST_ADDED:
                    tovrin_log(TOVRIN_LOG_DEBUG, "File deps added");
                    break;
                case LIST_REMOVED:
                    tovrin_log(TOVRIN_LOG_DEBUG, "File deps removed");
                    break;
                case LIST_DIFFER:
                    tovrin_log(TOVRIN_LOG_DEBUG, "file deps changed");
                    break;
                case LIST_NUMBER:
                    tovrin_log(TOVRIN_LOG_DEBUG, "number of file deps differ");
                    break;
            }
        });
}

bool same_action(const std::unique_ptr<tovrin_action> &a, const std::unique_ptr<tovrin_action> &b) {
    return a->type == b->type && a->command == b->command;
}

// Start, stop and test commands differ only in the word their messages use.
bool same_actions(const char *conn, const char *kind, const tovrin_action_list &o,
                  const tovrin_action_list &n) {
    return same_list(o, n, same_action, [conn, kind](list_difference d, const void *) {
        switch (d) {
            case LIST_ADDED:
                tovrin_log(TOVRIN_LOG_DEBUG, "conn %s %s actions changed (actions added)", conn,
                           kind);
                break;
            case LIST_REMOVED:
                tovrin_log(TOVRIN_LOG_DEBUG, "conn %s %s actions changed (actions removed)", conn,
                           kind);
                break;
            case LIST_DIFFER:
                tovrin_log(TOVRIN_LOG_DEBUG, "conn %s %s actions changed (actions differ)", conn,
                           kind);
                break;
            case LIST_NUMBER:
                tovrin_log(TOVRIN_LOG_DEBUG, "conn %s number of %s actions changed", conn, kind);
                break;
        }
    });
}

bool same_link(const tovrin_link &a, const tovrin_link &b) {
    return a.name == b.name;
}

void say_nothing(list_difference, const void *) {}

}  // namespace

int tovrin_conn_compare(const tovrin_conn *o, const tovrin_conn *n) {
    const char *conn = o->name.c_str();
    if (o->name != n->name) {
        tovrin_log(TOVRIN_LOG_DEBUG, "conn name changed: %s != %s", conn, n->name.c_str());
        return 0;
    }
    if (o->type != n->type) {
        tovrin_log(TOVRIN_LOG_DEBUG, "conn %s type changed: %d != %d", conn, o->type, n->type);
        return 0;
    }
    if (o->testperiod != n->testperiod) {
        tovrin_log(TOVRIN_LOG_DEBUG, "conn %s test period changed: %d != %d", conn, o->testperiod,
                   n->testperiod);
        return 0;
    }
    if (o->testdelay != n->testdelay) {
        tovrin_log(TOVRIN_LOG_DEBUG, "conn %s test delay changed: %d != %d", conn, o->testdelay,
                   n->testdelay);
        return 0;
    }
    if (o->testtimeout != n->testtimeout || o->testthreshold != n->testthreshold ||
        o->commandtimeout != n->commandtimeout)
        return 0;
    if (o->log_mask != n->log_mask) {
        tovrin_log(TOVRIN_LOG_DEBUG, "conn %s log mask changed", conn);
        return 0;
    }
    if (o->is_deaf != n->is_deaf) {
        tovrin_log(TOVRIN_LOG_DEBUG, "conn %s is_deaf changed", conn);
        return 0;
    }
    // A conn without commands, variables or file dependencies has empty
    // lists; empty ones allocate nothing.
    const tovrin_action_list none;
    const tovrin_var_part no_vars;
    const tovrin_var_part &op = o->var_part != nullptr ? *o->var_part : no_vars;
    const tovrin_var_part &np = n->var_part != nullptr ? *n->var_part : no_vars;
    auto actions = [&none](const tovrin_conn *c, int type) -> const tovrin_action_list & {
        const tovrin_action_list *list = tovrin_conn_actions(c, type);
        return list != nullptr ? *list : none;
    };
    if (!same_vars(o, op, np) || !same_file_deps(op, np) ||
        !same_actions(conn, "start", actions(o, TOVRIN_ACTION_START),
                      actions(n, TOVRIN_ACTION_START)) ||
        !same_actions(conn, "stop", actions(o, TOVRIN_ACTION_STOP),
                      actions(n, TOVRIN_ACTION_STOP)) ||
        !same_actions(conn, "test", actions(o, TOVRIN_ACTION_TEST),
                      actions(n, TOVRIN_ACTION_TEST)) ||
        !same_list(actions(o, TOVRIN_ACTION_UP), actions(n, TOVRIN_ACTION_UP), same_action,
                   say_nothing))
        return 0;

    bool same_parents =
        same_list(o->parents, n->parents, same_link, [conn](list_difference d, const void *) {
            switch (d) {
                case LIST_ADDED:
                    tovrin_log(TOVRIN_LOG_DEBUG, "conn %s parents changed (added)", conn);
                    break;
                case LIST_REMOVED:
                    tovrin_log(TOVRIN_LOG_DEBUG, "conn %s parents changed (removed)", conn);
                    break;
                case LIST_DIFFER:
                    tovrin_log(TOVRIN_LOG_DEBUG, "conn %s parents changed (differ)", conn);
                    break;
                case LIST_NUMBER:
                    tovrin_log(TOVRIN_LOG_DEBUG, "conn %s number of parents changed", conn);
                    break;
            }
        });
    if (!same_parents)
        return 0;
    bool same_children =
        same_list(o->children, n->children, same_link, [conn](list_difference d, const void *e) {
            switch (d) {
                case LIST_ADDED:
                    tovrin_log(TOVRIN_LOG_INFO, "conn %s children changed (added)", conn);
                    break;
                case LIST_REMOVED:
                    tovrin_log(TOVRIN_LOG_DEBUG, "conn %s children changed (removed)", conn);
                    break;
                case LIST_DIFFER:
                    tovrin_log(TOVRIN_LOG_DEBUG, "conn %s child %s name changed", conn,
                               static_cast<const tovrin_link *>(e)->name.c_str());
                    break;
                case LIST_NUMBER:
                    tovrin_log(TOVRIN_LOG_DEBUG, "conn %s number of children changed", conn);
                    break;
            }
        });
    if (!same_children)
        return 0;
    if (o->group_name != n->group_name)
        return 0;
    // Both are groups from here, each with its group part.
    if (o->type == TOVRIN_CONN)
        return 1;
    const tovrin_group_part &og = *o->group_part, &ng = *n->group_part;
    if (!same_list(og.members, ng.members, same_link, say_nothing))
        return 0;
    if (og.failforwardperiod != ng.failforwardperiod || og.failovertimeout != ng.failovertimeout ||
        og.mutex != ng.mutex)
        return 0;
    return 1;
}
