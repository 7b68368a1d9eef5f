#include "daemon/daemon.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <new>

#include "config/fixup.h"
#include "config/graph_dump.h"
#include "config/load.h"
#include "config/reload.h"
#include "config/state_dump.h"
#include "daemon/boot_delay.h"
#include "daemon/child_env.h"
#include "daemon/event_slot.h"
#include "daemon/fd_limit.h"
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

// Publishes each conn's first status and starts it when nothing depends on
// it, conn by conn; the others are started when their children ask.
void conns_first_start(tovrin_inst *inst) {
    for (tovrin_conn &conn : inst->conns) {
        tovrin_publish_status(&conn);
        if (conn.children.empty())
            tovrin_conn_deliver_message(inst, nullptr, &conn, TOVRIN_MSG_START);
    }
}

}  // namespace

void tovrin_daemon_start(tovrin_inst *inst, const std::function<void(unsigned)> &sleep_for) {
    tovrin_log(TOVRIN_LOG_INFO, "initialising");
    if (tovrin_config_load(inst, tovrin_config_move) < 0)
        tovrin_log(TOVRIN_LOG_FATAL,
                   "config not initialized - fix config file and send a SIGHUP to reload");
    tovrin_fd_limit_fit(inst);
    tovrin_boot_delay(inst, sleep_for);
    conns_first_start(inst);
    tovrin_keepalive_arm(inst);
}

namespace {

// Everything from the store link on; returns the exit status.
int tovrin_run(tovrin_inst *inst, int store_fd) {
    if (tovrin_inst_init(store_fd, inst) == nullptr)
        return -1;

    // Handled from the loop, never in signal context. Declared after the
    // instance, so they leave the base before it is freed.
    event_base *base = inst->base.get();
    event_slot sighup, sigusr1, sigusr2;
    sighup.set<tovrin_config_sighup>(base, SIGHUP, EV_SIGNAL | EV_PERSIST, inst);
    sighup.add();
    sigusr1.set<tovrin_state_dump>(base, SIGUSR1, EV_SIGNAL | EV_PERSIST, inst);
    sigusr1.add();
    sigusr2.set<tovrin_graph_dump>(base, SIGUSR2, EV_SIGNAL | EV_PERSIST, inst);
    sigusr2.add();

    tovrin_daemon_start(inst, [](unsigned seconds) { sleep(seconds); });
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

    try {
        return tovrin_run(&inst, store_fd);
    } catch (const std::bad_alloc &) {
        // Start-up could not finish; the loop's handlers guard themselves.
        tovrin_log(TOVRIN_LOG_FATAL, "Could not allocate memory; start-up abandoned");
        return -1;
    }
}
