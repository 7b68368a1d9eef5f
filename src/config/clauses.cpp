#include "config/clauses.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "command/file_dep.h"
#include "command/var.h"
#include "daemon/log.h"
#include "daemon/log_mask.h"
#include "supervise/conn.h"
#include "supervise/inst.h"

int config_number(const char *text) {
    long long value = strtoll(text, nullptr, 10);
    if (value > INT_MAX)
        return INT_MAX;
    if (value < INT_MIN)
        return INT_MIN;
    return static_cast<int>(value);
}

namespace {

// ---- global block ----

struct global_keyword {
    const char *keyword;
    const char *missing;  // message when the argument is missing
    int (*apply)(tovrin_globals *globals, const char *arg);
};

const global_keyword global_keywords[] = {
    {"bootdelay", "Bootdelay specified without a value",
     [](tovrin_globals *g, const char *arg) {
         g->bootdelay = config_number(arg);
         return 0;
     }},
    {"keepalive", "Keepalive specified without a value",
     [](tovrin_globals *g, const char *arg) {
         g->keepalive = config_number(arg);
         return 0;
     }},
    {"configreloadtimeout", "Config reload timeout specified without a value",
     [](tovrin_globals *g, const char *arg) {
         g->configreloadtimeout = config_number(arg);
         return 0;
     }},
    {"instancelog", "Instance log specified without an argument",
     [](tovrin_globals *g, const char *arg) {
         return tovrin_log_mask_parse(tovrin_instance_log_masks, "instance logging",
                                      &g->instance_log_mask, arg) < 0
                    ? -1
                    : 0;
     }},
    {"defaultlog", "Default log specified without an argument",
     [](tovrin_globals *g, const char *arg) {
         return tovrin_log_mask_parse(tovrin_conn_log_masks, "default conn logging",
                                      &g->default_log_mask, arg) < 0
                    ? -1
                    : 0;
     }},
};

// ---- conn and group definitions ----

// The argument that runs to the end of the line: past the indentation, the
// keyword and exactly one more character, all further blanks kept.
char *rest_of_line(char *line_copy, const char *keyword) {
    char *p = line_copy + strspn(line_copy, " \t");
    p += strlen(keyword);
    if (*p != '\0')
        p++;
    return p;
}

int add_action(tovrin_conn *conn, const config_clause &clause, int type) {
    std::unique_ptr<tovrin_action> action =
        tovrin_action_new(rest_of_line(clause.line_copy, clause.tokens[0]), type);
    try {
        if (action != nullptr) {
            action->config_line = conn->inst->config_line;
            tovrin_conn_append_action(conn, std::move(action));
            return 0;
        }
    } catch (const std::bad_alloc &) {
    }
    // A clause that cannot be stored is dropped; the file is not wrong.
    tovrin_log(TOVRIN_LOG_FATAL, "Couldn't create action");
    return 0;
}

struct definition_keyword {
    const char *keyword;
    const char *not_a_group;  // refusal on a plain conn; null: allowed
    int (*apply)(tovrin_conn *conn, const config_clause &clause);
};

// Logs a message naming the conn and fails the clause. Every message handed
// here is a literal of the tables below with one %s for the name.
int refuse(const char *message, const tovrin_conn *conn) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    tovrin_log(TOVRIN_LOG_FATAL, message, conn->name.c_str());
#pragma GCC diagnostic pop
    return -1;
}

// A numeric clause: sets *field, or refuses when the value is missing.
int set_number(tovrin_conn *conn, const config_clause &clause, int *field, const char *missing) {
    const char *arg = clause.arg(1);
    if (arg == nullptr)
        return refuse(missing, conn);
    *field = config_number(arg);
    return 0;
}

const definition_keyword definition_keywords[] = {
    {"start", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         return add_action(c, cl, TOVRIN_ACTION_START);
     }},
    {"stop", nullptr,
     [](tovrin_conn *c, const config_clause &cl) { return add_action(c, cl, TOVRIN_ACTION_STOP); }},
    {"test", nullptr,
     [](tovrin_conn *c, const config_clause &cl) { return add_action(c, cl, TOVRIN_ACTION_TEST); }},
    {"up", nullptr,
     [](tovrin_conn *c, const config_clause &cl) { return add_action(c, cl, TOVRIN_ACTION_UP); }},
    {"parent", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         if (cl.arg(1) == nullptr)
             return refuse("Parent specified without a name in connection %s", c);
         tovrin_conn_add_parent(c, cl.arg(1));
         return 0;
     }},
    {"child", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         if (cl.arg(1) == nullptr)
             return refuse("Child specified without a name in connection %s", c);
         tovrin_conn_add_child(c, cl.arg(1));
         return 0;
     }},
    {"member", "Connection %s is not a group and cannot have members",
     [](tovrin_conn *c, const config_clause &cl) {
         if (cl.arg(1) == nullptr)
             return refuse("Member specified without a name in group %s", c);
         tovrin_group_add_member(c, cl.arg(1));
         return 0;
     }},
    // The three group settings: refused above for a plain conn, the only
    // kind without a group part.
    {"mutex", "Connection %s is not a group and cannot have a mutex property",
     [](tovrin_conn *c, const config_clause &) {
         c->group_part->mutex = 1;
         return 0;
     }},
    {"failovertimeout", "Connection %s is not a group and cannot have a failover timeout",
     [](tovrin_conn *c, const config_clause &cl) {
         return set_number(c, cl, &c->group_part->failovertimeout,
                           "Failover timeout specified without a value in connection %s");
     }},
    {"failforwardperiod", "Connection %s is not a group and cannot have a failforward period",
     [](tovrin_conn *c, const config_clause &cl) {
         return set_number(c, cl, &c->group_part->failforwardperiod,
                           "Failforward period specified without a value in connection %s");
     }},
    {"file-dependency", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         // Cut in the line's own copy: only the dependency itself allocates.
         char *path = rest_of_line(cl.line_copy, cl.tokens[0]);
         path[strcspn(path, "\n")] = '\0';
         tovrin_conn_add_file_dep(c, path);
         return 0;
     }},
    {"log", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         if (cl.arg(1) == nullptr)
             return refuse("Log specified without an argument in connection %s", c);
         return tovrin_log_mask_parse(tovrin_conn_log_masks, c->name.c_str(), &c->log_mask,
                                      cl.arg(1)) < 0
                    ? -1
                    : 0;
     }},
    {"testdelay", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         return set_number(c, cl, &c->testdelay,
                           "Test delay specified without a name in connection %s");
     }},
    {"testperiod", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         return set_number(c, cl, &c->testperiod,
                           "Test period specified without a name in connection %s");
     }},
    {"testtimeout", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         return set_number(c, cl, &c->testtimeout,
                           "Test timeout specified without a name in connection %s");
     }},
    {"testthreshold", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         return set_number(c, cl, &c->testthreshold,
                           "Test threshold specified without a name in connection %s");
     }},
    {"commandtimeout", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         return set_number(c, cl, &c->commandtimeout,
                           "Command timeout specified without a name in connection %s");
     }},
    {"var", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         if (cl.arg(1) == nullptr)
             return refuse("Command var specified without a variable name in connection %s", c);
         if (cl.arg(2) == nullptr)
             return refuse("Command var specified without a variable value in connection %s", c);
         if (tovrin_conn_add_var(c, cl.arg(1), cl.arg(2)) != 0) {
             tovrin_log(TOVRIN_LOG_FATAL, "Could not set variable %s in connection %s", cl.arg(1),
                        c->name.c_str());
             return -1;
         }
         return 0;
     }},
    {"stord_var", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         if (cl.arg(1) == nullptr)
             return refuse("Command stord_var specified without a variable name in connection %s",
                           c);
         if (cl.arg(2) == nullptr)
             return refuse("Command stord_var specified without a variable value in connection %s",
                           c);
         if (tovrin_conn_add_stord_var(c, cl.arg(1), cl.arg(2)) != 0) {
             tovrin_log(TOVRIN_LOG_FATAL, "Could not set variable %s in connection %s", cl.arg(1),
                        c->name.c_str());
             return -1;
         }
         return 0;
     }},
    {"maxrestarts", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         return set_number(c, cl, &c->maxrestarts,
                           "Max restarts specified without a variable value in connection %s");
     }},
    {"restartdelayfactor", nullptr,
     [](tovrin_conn *c, const config_clause &cl) {
         return set_number(
             c, cl, &c->restartdelayfactor,
             "Restart delay factor specified without a variable value in connection %s");
     }},
};

}  // namespace

int config_global_clause(tovrin_inst *inst, const config_clause &clause) {
    const char *keyword = clause.tokens[0];
    for (const global_keyword &entry : global_keywords) {
        if (strcmp(entry.keyword, keyword) != 0)
            continue;
        if (clause.arg(1) == nullptr) {
            tovrin_log(TOVRIN_LOG_FATAL, "%s", entry.missing);
            return -1;
        }
        return entry.apply(inst->new_globals.get(), clause.arg(1));
    }
    tovrin_log(TOVRIN_LOG_FATAL, "Unknown clause: %s in global definition", keyword);
    return -1;
}

int config_definition_clause(tovrin_conn *conn, const config_clause &clause) {
    const char *keyword = clause.tokens[0];
    for (const definition_keyword &entry : definition_keywords) {
        if (strcmp(entry.keyword, keyword) != 0)
            continue;
        if (entry.not_a_group != nullptr && conn->type == TOVRIN_CONN)
            return refuse(entry.not_a_group, conn);
        return entry.apply(conn, clause);
    }
    tovrin_log(TOVRIN_LOG_FATAL, "Unknown clause: %s in connection %s", keyword,
               conn->name.c_str());
    return -1;
}
