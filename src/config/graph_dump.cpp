#include "config/graph_dump.h"

#include <fcntl.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "config/state_dump.h"
#include "daemon/log.h"
#include "platform/unique_fd.h"
#include "platform/unique_file.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/message.h"
#include "supervise/state.h"

namespace {

// The conn's name, or "null" for a message's missing sender or recipient.
const char *name_or_null(const tovrin_conn *conn) {
    return conn != nullptr ? conn->name.c_str() : "null";
}

// Opens path for writing, truncated; null when it cannot be opened.
unique_file file_create(const std::string &path) {
    // Close on exec: the commands the daemon runs must not inherit the file.
    return unique_file(fopen(path.c_str(), "we"));
}

// The snapshot's file name under dir, down to the nanosecond of the
// reading; "" should it not fit. Every field is bounded, so the name part
// always fits, and the directory is taken whole whatever its length.
std::string snapshot_name(const std::string &dir, const timespec &now, const tm &local) {
    char name[96];
    int n = snprintf(name, sizeof name, "/%04d%02d%02d-%02d%02d%02d.%09ld.dot",
                     local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                     local.tm_min, local.tm_sec, static_cast<long>(now.tv_nsec));
    if (n < 0 || static_cast<size_t>(n) >= sizeof name)
        return "";
    return dir + name;
}

// Writes a snapshot: the message queue as a chain of records, then the
// conns with the same messages drawn between them.
void snapshot_write(FILE *out, tovrin_inst *inst, const timespec &now) {
    fprintf(out, "digraph \"%lld.%09ld\" {\n", static_cast<long long>(now.tv_sec),
            static_cast<long>(now.tv_nsec));
    fputs("\tlabel=\"\\G\"\n", out);
    fputs("\tnodesep=1.5\nranksep=1.5\n", out);
    fputs("\tcompound=true;\n", out);

    // The queue as a chain of records hanging from "head"; each link is left
    // unterminated and the next record follows on its line.
    fputs("subgraph cluster_mq {\nlabel=\"message queue\"\n", out);
    fputs("\"head\" [shape=Mrecord label=\"{{id | {src | dst | type}}}\"]\n", out);
    int i = 0;
    for (const tovrin_msg &msg : inst->message_queue) {
        fprintf(out, "\"m%d\" [shape=Mrecord label=\"{{m%d | {%s | %s | %s}}}\"]\n", i, i,
                name_or_null(msg.src), name_or_null(msg.dst), tovrin_msg_type_name(msg.type));
        if (i == 0)
            fputs("\"head\" -> \"m0\"", out);
        else
            fprintf(out, "\"m%d\" -> \"m%d\"", i - 1, i);
        i++;
    }
    fputs("}\n", out);

    fputs("\tsubgraph cluster_conns {\n", out);
    fputs("\t\"tovrin\";\n", out);
    int cluster = 0;
    for (tovrin_conn &conn : inst->conns)
        tovrin_graph_node(&conn, out, cluster++);
    // The same messages between the conns they connect, kept out of the
    // layout so the conn graph keeps its shape.
    i = 0;
    for (const tovrin_msg &msg : inst->message_queue) {
        fprintf(out, "\"%s\" -> \"%s\" [style=\"dashed\" constraint=false label=\"m%d : %s\"]\n",
                name_or_null(msg.src), name_or_null(msg.dst), i, tovrin_msg_type_name(msg.type));
        i++;
    }
    fputs("\t}\n", out);
    fputs("}\n", out);
}

}  // namespace

void tovrin_graph_node(const tovrin_conn *conn, FILE *out, int cluster) {
    if (conn == nullptr || out == nullptr)
        return;
    const char *name = conn->name.c_str();
    // A deaf conn has no state worth showing; it is drawn as a placeholder.
    if (conn->is_deaf) {
        fprintf(out, "\t\"%s\" [style=dotted,color=red];\n", name);
    } else {
        const char *restart = conn->restart_after_stopping != 0 ? "R" : "";
        const char *colour = tovrin_state_colour(conn->current_state);
        if (colour != nullptr)
            fprintf(out, "\t\"%s\" [style=filled,fillcolor=\"%s\", label=\"\\N\\n%s\"];\n", name,
                    colour, restart);
        else
            fprintf(out, "\t\"%s\" [style=filled,fillcolor=yellow, label=\"\\N\\n%s\"];\n", name,
                    restart);
    }
    bool group = conn->type == TOVRIN_ANYGROUP || conn->type == TOVRIN_ORDEREDGROUP;
    if (conn->type != TOVRIN_CONN && !group)
        return;

    if (group)
        fprintf(out, "\t\"%s\" [shape=box,label=\"group %s\"];\n", name, name);
    for (const tovrin_link &child : conn->children) {
        if (!child.name.empty())
            fprintf(out, "\t\"%s\"->\"%s\";\n", name, child.name.c_str());
    }
    if (!group)
        return;

    // Positions count named members only: they are the failover order.
    const tovrin_link_list &members = conn->group_part->members;
    int position = 0;
    for (const tovrin_link &member : members) {
        if (!member.name.empty())
            fprintf(out, "\t\"%s\"->\"%s\" [label=\"%d\",style=dotted];\n", name,
                    member.name.c_str(), position++);
    }
    fprintf(out, "\tsubgraph cluster%d {\n", cluster);
    fprintf(out, "\t\t\"%s\";\n", name);
    for (const tovrin_link &member : members) {
        if (!member.name.empty())
            fprintf(out, "\t\t\"%s\";\n", member.name.c_str());
    }
    fputs("\t}\n", out);
}

void tovrin_graph_write(tovrin_inst *inst, FILE *out) {
    // asctime's own line break puts the end of this comment on a line of
    // its own. Write errors are tolerated.
    fprintf(out, "/* %s */\n", tovrin_dump_local_time(inst->clock->wall().tv_sec).c_str());
    fputs("/* Process with graphviz's dot utility: */\n", out);
    fputs("/* dot tovrin.dot -Tgif > tovrin.gif */\n", out);
    fputs("digraph G {\n", out);
    fputs("\tcompound=true;\n", out);
    int cluster = 0;
    for (tovrin_conn &conn : inst->conns)
        tovrin_graph_node(&conn, out, cluster++);
    fputs("}\n", out);
}

void tovrin_graph_dump(evutil_socket_t, short, void *arg) {
    auto *inst = static_cast<tovrin_inst *>(arg);
    if (inst == nullptr || inst->paths == nullptr)
        return;
    const std::string &path = inst->paths->graph_dump_file;
    tovrin_log(TOVRIN_LOG_INFO, "SIGUSR2 - Dumping graphviz to %s", path.c_str());

    unique_file out = file_create(path);
    if (out == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "Failed to open %s for writing", path.c_str());
        tovrin_log(TOVRIN_LOG_FATAL, "Failed to dump graphviz");
        return;
    }
    tovrin_graph_write(inst, out.get());
}

void tovrin_mq_snapshot(tovrin_inst *inst, const char *, const char *, const char *, int) {
    if (inst == nullptr || inst->paths == nullptr)
        return;
    // Called on every queue and status change: without the marker this one
    // failed open is the whole cost.
    {
        unique_fd marker(open(inst->paths->snapshot_marker.c_str(), O_RDONLY | O_CLOEXEC));
        if (!marker)
            return;
    }

    timespec now = inst->clock->wall();
    tm local{};
    if (localtime_r(&now.tv_sec, &local) == nullptr)
        return;
    // Two snapshots within one nanosecond share a name; the later one wins.
    std::string name = snapshot_name(inst->paths->snapshot_dir, now, local);
    unique_file out = name.empty() ? nullptr : file_create(name);
    if (out == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "Failed to open %s for writing", name.c_str());
        tovrin_log(TOVRIN_LOG_FATAL, "Failed to open graph dump file.");
        return;
    }
    snapshot_write(out.get(), inst, now);
}
