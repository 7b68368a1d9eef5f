#include "config/fixup.h"

#include <string>

#include "daemon/log.h"
#include "supervise/action_queue.h"
#include "supervise/conn.h"
#include "supervise/inst.h"

namespace {

// The pending conn named name, or a new deaf one; null when none can be made.
tovrin_conn *pending_find_or_deaf(tovrin_inst *inst, const std::string &name) {
    tovrin_conn *conn = inst->new_conns.find(name);
    return conn != nullptr ? conn : tovrin_conn_add_deaf(inst, name);
}

}  // namespace

void tovrin_config_fixup(tovrin_inst *inst, tovrin_config_handover handover) {
    // Deaf conns appended during a pass are visited by that pass too. No
    // pass adds to the kind of link it is reading.
    tovrin_log(TOVRIN_LOG_DEBUG, "config parsed; fixing parents...");
    for (tovrin_conn &conn : inst->new_conns) {
        for (const tovrin_link &parent : conn.parents)
            tovrin_conn_add_child(pending_find_or_deaf(inst, parent.name), conn.name);
    }

    tovrin_log(TOVRIN_LOG_DEBUG, "parent fixups applied; fixing children...");
    for (tovrin_conn &conn : inst->new_conns) {
        for (const tovrin_link &child : conn.children)
            tovrin_conn_add_parent(pending_find_or_deaf(inst, child.name), conn.name);
    }

    tovrin_log(TOVRIN_LOG_DEBUG, "children fixups applied; fixing groups...");
    for (tovrin_conn &group : inst->new_conns) {
        if (group.type != TOVRIN_ANYGROUP && group.type != TOVRIN_ORDEREDGROUP)
            continue;
        for (const tovrin_link &member : group.group_part->members)
            tovrin_conn_set_group(pending_find_or_deaf(inst, member.name), group.name);
    }
    // The links are complete: a reload holds two sets of them for a while,
    // so none keeps room to grow.
    for (tovrin_conn &conn : inst->new_conns) {
        conn.parents.shrink();
        conn.children.shrink();
        if (conn.group_part != nullptr)
            conn.group_part->members.shrink();
    }

    tovrin_log(TOVRIN_LOG_DEBUG, "group fixups applied. move or merge...");
    handover(inst);
    tovrin_log(TOVRIN_LOG_DEBUG, "config loading done.");
}

void tovrin_config_adopt_new_conns(tovrin_inst *inst) {
    // The only allocation comes first: once conns has room, moving them
    // cannot fail halfway.
    inst->conns.reserve(inst->new_conns.size());
    while (!inst->new_conns.empty()) {
        tovrin_conn *conn = inst->conns.push_back(inst->new_conns.pop_front());
        if (conn->command_part != nullptr)
            conn->command_part->test_event.set<tovrin_conn_run_tests>();
    }
}

void tovrin_config_move(tovrin_inst *inst) {
    tovrin_config_adopt_new_conns(inst);
    inst->globals = std::move(inst->new_globals);
}
