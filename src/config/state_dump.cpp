#include "config/state_dump.h"

#include <cstdio>
#include <ctime>
#include <deque>
#include <memory>

#include "daemon/log.h"
#include "daemon/log_mask.h"
#include "platform/unique_file.h"
#include "supervise/conn.h"
#include "supervise/globals.h"
#include "supervise/inst.h"
#include "supervise/message.h"
#include "supervise/state.h"

namespace {

// Writes a global clause. Every line a writer here writes starts with
// prefix: "" for what is in force, "#" to comment out what is pending.
void globals_write(FILE *out, const char *prefix, const tovrin_globals &globals) {
    fprintf(out, "%sglobal\n", prefix);
    tovrin_log_mask_dump(prefix, "default", globals.default_log_mask, tovrin_conn_log_masks, out);
    tovrin_log_mask_dump(prefix, "instance", globals.instance_log_mask, tovrin_instance_log_masks,
                         out);
    fprintf(out, "%s\tbootdelay %d\n", prefix, static_cast<int>(globals.bootdelay));
    fprintf(out, "%s\tkeepalive %d\n", prefix, globals.keepalive);
    fprintf(out, "%s\tconfigreloadtimeout %d\n", prefix, globals.configreloadtimeout);
}

// Writes the run-time state of a conn or group as comment lines.
void state_comments_write(FILE *out, const char *prefix, const tovrin_conn &conn) {
    fprintf(out, "%s\t#current_state = %s\n", prefix, tovrin_state_name(conn.current_state));
    fprintf(out, "%s\t#previous_state = %s\n", prefix, tovrin_state_name(conn.previous_state));
    fprintf(out, "%s\t#n_queued_stop_actions = %d\n", prefix, conn.n_queued_stop_actions);
    fprintf(out, "%s\t#n_queued_start_actions = %d\n", prefix, conn.n_queued_start_actions);
    fprintf(out, "%s\t#n_queued_test_actions = %d\n", prefix, conn.n_queued_test_actions);
    fprintf(out, "%s\t#n_test_failures = %d\n", prefix, conn.n_test_failures);
    fprintf(out, "%s\t#n_test_passes = %d\n", prefix, conn.n_test_passes);
    fprintf(out, "%s\t#restart_after_stopping = %d\n", prefix, conn.restart_after_stopping);
    fprintf(out, "%s\t#current_test_run_has_failure = %d\n", prefix,
            conn.current_test_run_has_failure);
}

// Writes the test and command timing clauses.
void timing_write(FILE *out, const char *prefix, const tovrin_conn &conn) {
    fprintf(out, "%s\ttestperiod %d\n", prefix, conn.testperiod);
    fprintf(out, "%s\ttestdelay %d\n", prefix, conn.testdelay);
    fprintf(out, "%s\ttesttimeout %d\n", prefix, conn.testtimeout);
    fprintf(out, "%s\ttestthreshold %d\n", prefix, conn.testthreshold);
    fprintf(out, "%s\tcommandtimeout %d\n", prefix, conn.commandtimeout);
}

// Writes a child clause per named child, then a parent clause per named
// parent. Links the fix-ups added are included, so both sides of every
// relation show.
void links_write(FILE *out, const char *prefix, const tovrin_conn &conn) {
    for (const tovrin_link &link : conn.children) {
        if (!link.name.empty())
            fprintf(out, "%s\tchild %s\n", prefix, link.name.c_str());
    }
    for (const tovrin_link &link : conn.parents) {
        if (!link.name.empty())
            fprintf(out, "%s\tparent %s\n", prefix, link.name.c_str());
    }
}

// Writes the start, stop, test and up clauses. The stored text keeps the
// line break it had in the file, and that break ends the dumped line.
void commands_write(FILE *out, const char *prefix, const tovrin_conn &conn) {
    const tovrin_command_part *part = conn.command_part.get();
    if (part == nullptr)
        return;
    for (const auto &action : part->start_actions)
        fprintf(out, "%s\tstart %s", prefix, action->command.c_str());
    for (const auto &action : part->stop_actions)
        fprintf(out, "%s\tstop %s", prefix, action->command.c_str());
    for (const auto &action : part->test_actions)
        fprintf(out, "%s\ttest %s", prefix, action->command.c_str());
    for (const auto &action : part->up_actions)
        fprintf(out, "%s\tup %s", prefix, action->command.c_str());
}

// Writes each file dependency with the checksum taken when it was read.
void file_deps_write(FILE *out, const char *prefix, const tovrin_conn &conn) {
    if (conn.var_part == nullptr)
        return;
    for (const tovrin_file_dep &dep : conn.var_part->file_deps) {
        fprintf(out, "%s\tfile-dependency %s\n", prefix, dep.path.c_str());
        fprintf(out, "%s\t#checksum %lu\n", prefix, static_cast<unsigned long>(dep.checksum));
    }
}

// text, or "(null)" for the empty string, which stands for no value.
const char *text_or_null(const std::string &text) {
    return text.empty() ? "(null)" : text.c_str();
}

// Writes one variable clause. A store variable's value is the store's, so
// it goes in a comment: the clause alone reads back to the same
// subscription.
void var_write(FILE *out, const char *prefix, const tovrin_var &var) {
    if (var.type == TOVRIN_VAR_PLAIN) {
        fprintf(out, "%s\tvar %s", prefix, text_or_null(var.name));
        fprintf(out, " %s\n", text_or_null(var.value));
        return;
    }
    const tovrin_var_sub &sub = *var.sub;
    fprintf(out, "%s\tstord_var %s", prefix, text_or_null(var.name));
    fprintf(out, " %s\n", text_or_null(sub.stord_prefix));
    fprintf(out, "%s\t#stord_var %s", prefix, text_or_null(var.name));
    fprintf(out, " current_val=%s\n", sub.current_val ? sub.current_val->c_str() : "(null)");
}

// Writes the variables of the five lists, in list order.
void vars_write(FILE *out, const char *prefix, const tovrin_conn &conn) {
    if (conn.var_part == nullptr)
        return;
    for (const tovrin_var_list &list : conn.var_part->vars) {
        for (const auto &var : list)
            var_write(out, prefix, *var);
    }
}

// Writes the conn's queued commands and the pending messages as comments.
void queues_write(FILE *out, const char *prefix, const tovrin_conn &conn,
                  const std::deque<tovrin_msg> &messages) {
    // Every conn lists the whole queue, not only what is addressed to it, so
    // the order between messages shows wherever the reader looks.
    if (const tovrin_command_part *part = conn.command_part.get()) {
        for (const auto &entry : part->queued_actions)
            fprintf(out, "%s\t#queued action \"%s\"\n", prefix, entry->command_name.c_str());
        for (const auto &entry : part->queued_up_actions)
            fprintf(out, "%s\t#queued up action \"%s\"\n", prefix, entry->command_name.c_str());
    }
    for (const tovrin_msg &msg : messages) {
        fprintf(out, "%s\t#pending message from %s, type: %d\n", prefix,
                msg.src != nullptr ? msg.src->name.c_str() : "tovrin", msg.type);
    }
}

// Writes what conns and groups share after their own lines: commands, file
// dependencies, variables, log mask and queues.
void conn_tail_write(FILE *out, const char *prefix, const tovrin_conn &conn,
                     const std::deque<tovrin_msg> &messages) {
    commands_write(out, prefix, conn);
    file_deps_write(out, prefix, conn);
    vars_write(out, prefix, conn);
    tovrin_log_mask_dump(prefix, "", conn.log_mask, tovrin_conn_log_masks, out);
    queues_write(out, prefix, conn, messages);
}

// Writes a conn definition with its state. A deaf conn has no definition:
// its header is commented out, and a reader's fix-ups recreate it from the
// links that name it.
void conn_write(FILE *out, const char *prefix, const tovrin_conn &conn,
                const std::deque<tovrin_msg> &messages) {
    fprintf(out, "%s%sconn %s\n", prefix, conn.is_deaf ? "#" : "", conn.name.c_str());
    if (conn.is_deaf) {
        fprintf(out, "%s\t#undefined\n", prefix);
        return;
    }
    if (!conn.group_name.empty())
        fprintf(out, "%s\t#group %s\n", prefix, conn.group_name.c_str());
    state_comments_write(out, prefix, conn);
    timing_write(out, prefix, conn);
    links_write(out, prefix, conn);
    conn_tail_write(out, prefix, conn, messages);
}

// Writes a group definition with its state and failover settings.
void group_write(FILE *out, const char *prefix, const tovrin_conn &group,
                 const std::deque<tovrin_msg> &messages) {
    fprintf(out, "%s%s%s%s\n", prefix, group.is_deaf ? "#" : "",
            group.type == TOVRIN_ORDEREDGROUP ? "orderedgroup " : "anygroup ", group.name.c_str());
    if (group.is_deaf) {
        fprintf(out, "%s\t#undefined\n", prefix);
        return;
    }
    state_comments_write(out, prefix, group);
    const tovrin_group_part &part = *group.group_part;
    fprintf(out, "%s\t#currently_failing_over = %d\n", prefix, part.currently_failing_over);
    fprintf(out, "%s\t#active_conn_name %s\n", prefix, text_or_null(part.active_conn_name));
    fprintf(out, "%s\t#next_active_conn_name %s\n", prefix,
            text_or_null(part.next_active_conn_name));
    timing_write(out, prefix, group);
    fprintf(out, "%s\tfailforwardperiod %d\n", prefix, part.failforwardperiod);
    fprintf(out, "%s\tfailovertimeout %d\n", prefix, part.failovertimeout);
    if (part.mutex != 0)
        fprintf(out, "%s\tmutex\n", prefix);
    links_write(out, prefix, group);
    for (const tovrin_link &member : part.members) {
        if (!member.name.empty())
            fprintf(out, "%s\tmember %s\n", prefix, member.name.c_str());
    }
    conn_tail_write(out, prefix, group, messages);
}

// Writes a conn or a group; a record of any other type writes nothing, and
// only the empty line the caller adds after it remains.
void record_write(FILE *out, const char *prefix, const tovrin_conn &conn,
                  const std::deque<tovrin_msg> &messages) {
    switch (conn.type) {
        case TOVRIN_CONN:
            conn_write(out, prefix, conn, messages);
            break;
        case TOVRIN_ANYGROUP:
        case TOVRIN_ORDEREDGROUP:
            group_write(out, prefix, conn, messages);
            break;
        default:
            break;
    }
}

// Writes the whole dump: the time, the settings and conns in force, then
// the configuration a reload is waiting to merge.
void inst_write(FILE *out, tovrin_inst *inst) {
    fprintf(out, "# %s\n", tovrin_dump_local_time(inst->clock->wall().tv_sec).c_str());
    fputs("#global state\n", out);
    fprintf(out, "\t#reloading_config = %d\n\n", inst->reloading_config ? 1 : 0);

    if (inst->globals != nullptr)
        globals_write(out, "", *inst->globals);
    fputs("\n", out);
    for (tovrin_conn &conn : inst->conns) {
        record_write(out, "", conn, inst->message_queue);
        fputs("\n", out);
    }
    fputs("\n", out);

    if (inst->new_globals != nullptr) {
        fputs("# New global variables pending merge\n", out);
        globals_write(out, "#", *inst->new_globals);
        fputs("\n", out);
    } else {
        fputs("# No new global variables\n", out);
    }
    if (!inst->new_conns.empty()) {
        fputs("# New conns pending merge\n", out);
        for (tovrin_conn &conn : inst->new_conns) {
            record_write(out, "#", conn, inst->message_queue);
            fputs("\n", out);
        }
    } else {
        fputs("# No new conns pending merge\n", out);
    }
}

}  // namespace

std::string tovrin_dump_local_time(time_t when) {
    tm local{};
    // asctime_r needs 26 bytes and refuses, rather than overflows, a year
    // that does not fit.
    char text[64];
    if (localtime_r(&when, &local) == nullptr || asctime_r(&local, text) == nullptr)
        return "(unknown time)\n";
    return text;
}

void tovrin_state_dump(evutil_socket_t, short, void *arg) {
    auto *inst = static_cast<tovrin_inst *>(arg);
    if (inst == nullptr || inst->paths == nullptr)
        return;
    const char *path = inst->paths->state_dump_file.c_str();
    tovrin_log(TOVRIN_LOG_INFO, "SIGUSR1 - Dumping Config to %s", path);

    // Close on exec: the commands the daemon runs must not inherit the dump.
    unique_file out(fopen(path, "we"));
    if (out == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "Failed to open %s for writing", path);
        tovrin_log(TOVRIN_LOG_FATAL, "Failed to dump config");
        return;
    }
    // Write errors are tolerated: a partial dump is still worth reading.
    inst_write(out.get(), inst);
}
