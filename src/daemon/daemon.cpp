#include "daemon/daemon.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "config/fixup.h"
#include "config/graph_dump.h"
#include "config/load.h"
#include "config/reload.h"
#include "config/state_dump.h"
#include "daemon/boot_delay.h"
#include "daemon/child_env.h"
#include "daemon/event_slot.h"
#include "daemon/log.h"
#include "platform/pidfile.h"
#include "platform/store_socket.h"
#include "store/status.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/keepalive.h"
#include "supervise/message_queue.h"

namespace {

const char pidfile_name[] = "tovrin";

tovrin_log_setup log_open(const tovrin_paths &paths) {
    if (paths.log_file.empty())
        return tovrin_log_setup::open_syslog();
    return tovrin_log_setup::open_file(paths.log_file.c_str());
}

// Publishes every conn's first status, then starts the conns nothing
// depends on; the others are started when their children ask.
void conns_first_start(tovrin_inst *inst) {
    for (tovrin_conn &conn : inst->conns)
        tovrin_publish_status(&conn);
    for (tovrin_conn &conn : inst->conns) {
        if (conn.children.empty())
            tovrin_conn_deliver_message(inst, nullptr, &conn, TOVRIN_MSG_START);
    }
}

// Everything from the store link on; returns the exit status.
int tovrin_run(tovrin_inst *inst, int store_fd) {
    if (tovrin_inst_init(store_fd, inst) == nullptr)
        return -1;
    tovrin_log(TOVRIN_LOG_INFO, "initialising");

    if (tovrin_config_load(inst, tovrin_config_move) < 0)
        tovrin_log(TOVRIN_LOG_FATAL,
                   "config not initialized - fix config file and send a SIGHUP to reload");

    // Handled from the loop, never in signal context. Declared after the
    // instance, so they leave the base before it is freed.
    event_base *base = inst->base.get();
    event_slot sighup, sigusr1, sigusr2;
    sighup.set(base, SIGHUP, EV_SIGNAL | EV_PERSIST, tovrin_config_sighup, inst);
    sighup.add();
    sigusr1.set(base, SIGUSR1, EV_SIGNAL | EV_PERSIST, tovrin_state_dump, inst);
    sigusr1.add();
    sigusr2.set(base, SIGUSR2, EV_SIGNAL | EV_PERSIST, tovrin_graph_dump, inst);
    sigusr2.add();

    tovrin_boot_delay(inst, [](unsigned seconds) { sleep(seconds); });

    conns_first_start(inst);
    tovrin_keepalive_arm(inst);

    event_base_loop(base, 0);
    return 0;
}

}  // namespace

void tovrin_pidfile_release(int, void *arg) {
    const auto *paths = static_cast<const tovrin_paths *>(arg);
    veltrane_pidfile_clear(paths->run_dir.c_str(), pidfile_name);
}

int tovrin_main(const tovrin_paths &paths) {
    // The log comes first so that a refused second instance can say why;
    // the pid file is still checked before anything is written to it.
    tovrin_log_setup log = log_open(paths);
    tovrin_inst inst;
    inst.paths = &paths;
    int store_fd = -1;

    if (veltrane_pidfile_valid(paths.run_dir.c_str(), pidfile_name) == 0) {
        tovrin_log(TOVRIN_LOG_FATAL, "Another tovrin instance is running, exiting...");
        return -1;
    }

    veltrane_pidfile_create(paths.run_dir.c_str(), pidfile_name);
    on_exit(tovrin_pidfile_release, const_cast<tovrin_paths *>(&paths));

    tovrin_child_env_extend();

    if (stord_multiple_start_unix(&store_fd, paths.store_socket.c_str()) != 0) {
        tovrin_log(TOVRIN_LOG_FATAL, "could not open stord socket");
        sleep(5);
        return -1;
    }

    return tovrin_run(&inst, store_fd);
}
