#include "store/command.h"

#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "daemon/log.h"
#include "groups/failover.h"
#include "supervise/conn.h"
#include "supervise/external.h"
#include "supervise/inst.h"

namespace {

struct global_command {
    const char *name;
    int (*handler)(tovrin_inst *inst);
};

struct conn_command {
    const char *name;
    int (*handler)(tovrin_conn *conn);
};

// Searched from the top; a name matches when it is a prefix of the action.
const global_command tovrin_global_commands[] = {
    {"stop_keepalive", tovrin_external_stop_keepalive},
    {"start_keepalive", tovrin_external_start_keepalive},
};

const conn_command tovrin_conn_commands[] = {
    {"stop", tovrin_conn_external_stop},
    {"start", tovrin_conn_external_start},
    {"restart", tovrin_conn_external_restart},
    {"failover", tovrin_conn_external_failover},
};

bool name_prefixes(const char *name, const std::string &action) {
    return action.compare(0, strlen(name), name) == 0;
}

// Splits on commas, empty fields collapsing; at most three fields are kept.
int command_split(std::string_view text, std::string fields[3]) {
    int n = 0;
    size_t pos = 0;
    while (n < 3) {
        size_t start = text.find_first_not_of(',', pos);
        if (start == std::string_view::npos)
            break;
        size_t end = text.find(',', start);
        fields[n++] = std::string(text.substr(start, end - start));
        if (end == std::string_view::npos)
            break;
        pos = end;
    }
    return n;
}

}  // namespace

int tovrin_handle_command(tovrin_inst *inst, std::string_view command) {
    std::string fields[3];
    int n_fields = 0;
    try {
        n_fields = command_split(command, fields);
    } catch (const std::bad_alloc &) {
        return -1;
    }
    if (n_fields < 3) {
        tovrin_log(TOVRIN_LOG_FATAL, "invalid control message received");
        return -1;
    }
    const std::string &target = fields[0];
    const std::string &action = fields[2];

    if (target == "tovrin") {
        for (const global_command &entry : tovrin_global_commands) {
            if (name_prefixes(entry.name, action)) {
                entry.handler(inst);
                return 0;
            }
        }
    }

    // Deaf conns count: the command is accepted and its message dropped.
    tovrin_conn *conn = inst->conns.find(target);
    if (conn == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "control message for invalid conn \"%s\" received",
                   target.c_str());
        return -1;
    }
    for (const conn_command &entry : tovrin_conn_commands) {
        if (name_prefixes(entry.name, action)) {
            entry.handler(conn);
            return 0;
        }
    }
    tovrin_log(TOVRIN_LOG_FATAL, "unknown action: %s", action.c_str());
    return -1;
}
