#include "command/var.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <unordered_set>
#include <utility>
#include <vector>

#include "daemon/log.h"
#include "daemon/log_mask.h"
#include "platform/strappend.h"
#include "store/store_link.h"
#include "supervise/conn.h"
#include "supervise/inst.h"

int tovrin_var_index(std::string_view name) {
    uint32_t sum = 0;
    for (char ch : name)
        sum += static_cast<unsigned char>(ch);
    return static_cast<int>(sum % TOVRIN_N_VAR_LISTS);
}

namespace {

bool conn_debug(const tovrin_conn *conn) {
    return (conn->log_mask & TOVRIN_LOG_DEBUG_WORD) != 0;
}

// Moves the one variable held by node to the head of its list in conn, whose
// variable part exists. Splicing cannot fail, so the variable is complete
// before it is visible.
void conn_insert_var(tovrin_conn *conn, tovrin_var_list &node) {
    const std::string &name = node.front()->name;
    int index = tovrin_var_index(name);
    if (conn_debug(conn))
        tovrin_log(TOVRIN_LOG_INFO, "Inserting var %s in index %d", name.c_str(), index);
    tovrin_var_list &list = conn->var_part->vars[static_cast<size_t>(index)];
    list.splice_after(list.before_begin(), node);
}

}  // namespace

void tovrin_conn_vars_init(tovrin_conn *conn) {
    if (conn == nullptr || conn->var_part == nullptr)
        return;
    for (tovrin_var_list &list : conn->var_part->vars)
        list.clear();
}

int tovrin_conn_add_var(tovrin_conn *conn, std::string_view name, std::string_view value) {
    if (conn == nullptr)
        return -1;
    tovrin_var_list node;
    try {
        auto var = std::make_unique<tovrin_var>();
        var->type = TOVRIN_VAR_PLAIN;
        var->name = name;
        var->value = value;
        node.push_front(std::move(var));
        tovrin_conn_var_part(conn);
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate variable");
        return -1;
    }
    conn_insert_var(conn, node);
    return 0;
}

int tovrin_conn_add_stord_var(tovrin_conn *conn, std::string_view name, std::string_view key) {
    if (conn == nullptr)
        return -1;
    tovrin_var_list node;
    tovrin_var_sub_list sub_node;
    try {
        auto var = std::make_unique<tovrin_var>();
        var->type = TOVRIN_VAR_STORD;
        var->name = name;
        sub_node.push_back(tovrin_var_sub{std::string(key), std::nullopt});
        // Stays valid when the node is spliced into store_vars.
        var->sub = sub_node.begin();
        node.push_front(std::move(var));
        tovrin_conn_var_part(conn);
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate variable");
        return -1;
    }
    const char *key_text = sub_node.front().stord_prefix.c_str();
    if (conn->inst == nullptr || tovrin_store_subscribe(conn->inst, key_text) != 0) {
        tovrin_log(TOVRIN_LOG_FATAL, "Could not register variable subscription");
        return -1;
    }
    tovrin_var_sub_list &subs = conn->inst->store_vars;
    subs.splice(subs.begin(), sub_node);
    conn_insert_var(conn, node);
    return 0;
}

void tovrin_conn_vars_free(tovrin_conn *conn) {
    if (conn == nullptr || conn->var_part == nullptr)
        return;
    for (tovrin_var_list &list : conn->var_part->vars) {
        while (!list.empty()) {
            const tovrin_var &var = *list.front();
            // Store variables exist only on conns with an instance.
            if (var.type == TOVRIN_VAR_STORD && conn->inst != nullptr) {
                tovrin_store_unsubscribe(conn->inst, var.sub->stord_prefix.c_str());
                conn->inst->store_vars.erase(var.sub);
            }
            list.pop_front();
        }
    }
}

std::optional<std::string> tovrin_var_lookup_local(tovrin_conn *conn, const std::string &name,
                                                   std::optional<std::string> text, bool &found) {
    if (conn == nullptr)
        return text;
    int index = tovrin_var_index(name);
    bool debug = conn_debug(conn);
    if (debug)
        tovrin_log(TOVRIN_LOG_INFO, "Looking for var %s in index %d", name.c_str(), index);
    // The visit is logged the same for a conn without any variables.
    if (conn->var_part == nullptr)
        return text;
    for (const std::unique_ptr<tovrin_var> &var :
         conn->var_part->vars[static_cast<size_t>(index)]) {
        if (debug)
            tovrin_log(TOVRIN_LOG_INFO, "Found %s - comparing to %s", var->name.c_str(),
                       name.c_str());
        if (var->name != name)
            continue;
        const std::string *value = nullptr;
        if (var->type == TOVRIN_VAR_PLAIN)
            value = &var->value;
        else if (var->sub->current_val.has_value())
            value = &*var->sub->current_val;
        if (value != nullptr) {
            const char *separator = text.has_value() ? " " : nullptr;
            text =
                strappend(text.has_value() ? std::move(*text) : std::string(), *value, separator);
        }
        // A store variable without a value yet still ends the search.
        found = true;
        return text;
    }
    return text;
}

namespace {

bool conn_is_group(const tovrin_conn *conn) {
    return conn->type == TOVRIN_ANYGROUP || conn->type == TOVRIN_ORDEREDGROUP;
}

// A group's active member as it resolves now; null for a plain conn, a group
// without one, or a name not found (logged by the lookup).
tovrin_conn *conn_active_member(tovrin_conn *conn) {
    if (!conn_is_group(conn) || conn->group_part->active_conn_name.empty())
        return nullptr;
    return tovrin_conn_find(conn->inst, conn->group_part->active_conn_name);
}

enum class search_kind { first, all };

// One search for one name: the text collected so far and the path walked.
// The walk keeps its own stack, so its depth is bounded by the number of
// conns and not by the thread's stack.
class var_search {
  public:
    // The search stops after the number of visits conn's instance allows.
    var_search(const tovrin_conn *conn, const std::string &name, std::optional<std::string> text,
               bool &found)
        : name_(name),
          text_(std::move(text)),
          found_(found),
          max_visits_(conn->inst != nullptr ? conn->inst->var_search_max_visits
                                            : TOVRIN_VAR_SEARCH_MAX_VISITS) {}

    std::optional<std::string> take_text() { return std::move(text_); }

    void local(tovrin_conn *conn);
    void parents_all(tovrin_conn *conn);
    void tree(tovrin_conn *start, search_kind kind);

  private:
    struct frame {
        tovrin_conn *conn;
        bool member_tried;
        tovrin_link_list::const_iterator next_parent;
    };

    bool enter(tovrin_conn *conn);
    void leave(tovrin_conn *conn) { path_.erase(conn); }
    // A command keeps no more of an expansion than TOVRIN_VAR_TEXT_MAX
    // characters, so no more is kept here: a search through many holders
    // stays small.
    void look_in(tovrin_conn *conn) {
        text_ = tovrin_var_lookup_local(conn, name_, std::move(text_), found_);
        if (text_.has_value() && text_->size() > TOVRIN_VAR_TEXT_MAX)
            text_->resize(TOVRIN_VAR_TEXT_MAX);
    }
    void descend(std::vector<frame> &stack, tovrin_conn *conn);

    const std::string &name_;
    std::optional<std::string> text_;
    bool &found_;
    // The conns of the path being walked: a conn met again on its own path
    // is its own ancestor, and following it would never end.
    std::unordered_set<const tovrin_conn *> path_;
    const long max_visits_;
    long visits_ = 0;
    bool cut_ = false;
    bool cycle_reported_ = false;
};

// Puts conn on the path and counts the visit; false when conn is already on
// the path (a cycle, reported once per search) or the search has run out of
// visits (reported when it happens).
bool var_search::enter(tovrin_conn *conn) {
    if (cut_)
        return false;
    if (path_.count(conn) != 0) {
        if (!cycle_reported_) {
            tovrin_log(TOVRIN_LOG_FATAL, "variable search for %s found a cycle through conn %s",
                       name_.c_str(), conn->name.c_str());
            cycle_reported_ = true;
        }
        return false;
    }
    if (++visits_ > max_visits_) {
        tovrin_log(TOVRIN_LOG_FATAL, "variable search for %s stopped after visiting %ld conns",
                   name_.c_str(), max_visits_);
        cut_ = true;
        return false;
    }
    path_.insert(conn);
    return true;
}

void var_search::local(tovrin_conn *conn) {
    found_ = false;
    if (!enter(conn))
        return;
    look_in(conn);
    // Every conn of the chain stays on the path: meeting one again is a loop.
    while (!found_) {
        tovrin_conn *member = conn_active_member(conn);
        if (member == nullptr || !enter(member))
            return;
        found_ = false;
        look_in(member);
        conn = member;
    }
}

// Looks in conn; when it does not hold the name, its member and parents are
// searched next from a new frame.
void var_search::descend(std::vector<frame> &stack, tovrin_conn *conn) {
    if (!enter(conn))
        return;
    found_ = false;
    look_in(conn);
    if (found_) {
        leave(conn);
        return;
    }
    stack.push_back(frame{conn, false, conn->parents.begin()});
}

void var_search::tree(tovrin_conn *start, search_kind kind) {
    std::vector<frame> stack;
    descend(stack, start);
    while (!stack.empty() && !cut_) {
        frame &top = stack.back();
        if (kind == search_kind::first && found_) {
            leave(top.conn);
            stack.pop_back();
            continue;
        }
        tovrin_conn *next;
        if (!top.member_tried) {
            top.member_tried = true;
            next = conn_active_member(top.conn);
        } else if (top.next_parent != top.conn->parents.end()) {
            const tovrin_link &link = *top.next_parent++;
            if (kind == search_kind::first)
                found_ = false;
            next = tovrin_conn_find(top.conn->inst, link.name);
        } else {
            leave(top.conn);
            stack.pop_back();
            continue;
        }
        // top is not used again: descending may move the stack.
        if (next != nullptr)
            descend(stack, next);
    }
    for (const frame &f : stack)
        leave(f.conn);
}

void var_search::parents_all(tovrin_conn *conn) {
    // The conn itself is not on the path: a parent chain that leads back to
    // it searches it like any other ancestor.
    for (const tovrin_link &link : conn->parents) {
        tovrin_conn *parent = tovrin_conn_find(conn->inst, link.name);
        if (parent != nullptr)
            tree(parent, search_kind::all);
    }
}

}  // namespace

std::optional<std::string> tovrin_var_search_local(tovrin_conn *conn, const std::string &name,
                                                   std::optional<std::string> text, bool &found) {
    found = false;
    if (conn == nullptr)
        return text;
    var_search search(conn, name, std::move(text), found);
    search.local(conn);
    return search.take_text();
}

std::optional<std::string> tovrin_var_search_parents_all(tovrin_conn *conn, const std::string &name,
                                                         std::optional<std::string> text,
                                                         bool &found) {
    if (conn == nullptr)
        return text;
    var_search search(conn, name, std::move(text), found);
    search.parents_all(conn);
    return search.take_text();
}

std::optional<std::string> tovrin_var_search_all(tovrin_conn *conn, const std::string &name,
                                                 std::optional<std::string> text, bool &found) {
    found = false;
    if (conn == nullptr)
        return text;
    var_search search(conn, name, std::move(text), found);
    search.tree(conn, search_kind::all);
    return search.take_text();
}

std::optional<std::string> tovrin_var_search_first(tovrin_conn *conn, const std::string &name,
                                                   std::optional<std::string> text, bool &found) {
    found = false;
    if (conn == nullptr)
        return text;
    var_search search(conn, name, std::move(text), found);
    search.tree(conn, search_kind::first);
    return search.take_text();
}

namespace {

using var_strategy = std::optional<std::string> (*)(tovrin_conn *, const std::string &,
                                                    std::optional<std::string>, bool &);

struct var_strategy_row {
    const char *name;
    var_strategy search;
};

// Matched by prefix and the last match wins, so the order is part of the
// behaviour.
constexpr var_strategy_row var_strategies[] = {
    {"local", tovrin_var_search_local},
    {"parents_all", tovrin_var_search_parents_all},
    {"all", tovrin_var_search_all},
    {"first", tovrin_var_search_first},
};

}  // namespace

std::optional<std::string> tovrin_var_expand(tovrin_conn *conn, const char *reference,
                                             bool *found_out) {
    if (found_out != nullptr)
        *found_out = false;
    if (conn == nullptr || reference == nullptr)
        return std::nullopt;
    var_strategy search = tovrin_var_search_first;
    const char *name = reference;
    const char *colon = strchr(reference, ':');
    if (colon != nullptr) {
        const var_strategy_row *chosen = nullptr;
        for (const var_strategy_row &row : var_strategies) {
            if (strncmp(reference, row.name, strlen(row.name)) == 0)
                chosen = &row;
        }
        name = colon + 1;
        if (chosen != nullptr)
            search = chosen->search;
        else if (conn_debug(conn))
            tovrin_log(TOVRIN_LOG_INFO, "Unknown search strategy found %s - reverting to first",
                       reference);
    }
    bool found = false;
    std::optional<std::string> value = search(conn, std::string(name), std::nullopt, found);
    if (found_out != nullptr)
        *found_out = found;
    return value;
}
