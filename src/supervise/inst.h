#pragma once

#include <event2/event.h>
#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "command/var.h"
#include "daemon/clock.h"
#include "daemon/event_slot.h"
#include "daemon/fd_limit.h"
#include "daemon/paths.h"
#include "platform/spawn.h"
#include "store/out_queue.h"
#include "supervise/conn.h"
#include "supervise/conn_list.h"
#include "supervise/globals.h"
#include "supervise/message.h"

// Frees an event base when its owner goes.
struct event_base_deleter {
    void operator()(event_base *base) const { event_base_free(base); }
};
using event_base_ptr = std::unique_ptr<event_base, event_base_deleter>;

// Frees memory that came from malloc or calloc.
struct free_deleter {
    void operator()(void *p) const { free(p); }
};

// The one instance of the daemon, owned by main for the life of the process.
// The base is declared first so that it is freed last, after every event of
// every record below has been taken out of it.
struct tovrin_inst {
    tovrin_inst() = default;
    tovrin_inst(const tovrin_inst &) = delete;
    tovrin_inst &operator=(const tovrin_inst &) = delete;
    ~tovrin_inst();

    event_base_ptr base;
    const tovrin_paths *paths = nullptr;

    int store_fd = -1;
    event_slot store_read_event;
    event_slot store_write_event;
    event_slot tovrin_timer;
    event_slot sigchld_event;
    event_slot reload_check_event;
    event_slot config_reload_timer;
    const char *command_key = nullptr;

    // The store frame being read.
    int store_rx_state = 0;
    unsigned char store_rx_header[4] = {0, 0, 0, 0};
    size_t store_rx_header_count = 0;
    std::unique_ptr<char, free_deleter> store_rx_buffer;  // length + 1 bytes, zero-filled
    size_t store_rx_length = 0;
    size_t store_rx_count = 0;
    int store_tx_state = 0;

    std::unique_ptr<tovrin_globals> globals;
    std::unique_ptr<tovrin_globals> new_globals;
    tovrin_var_sub_list store_vars;
    tovrin_store_queue store_out_queue;
    // Queued actions whose child is running or terminating, by pid. Declared
    // before the conns so that it outlives every entry that unregisters
    // itself on the way out.
    std::unordered_map<pid_t, tovrin_queued_action *> running_actions;
    // Every clock reading and timer goes through here; scenarios and the
    // simulator put a virtual clock in its place.
    std::unique_ptr<tovrin_clock> clock = std::make_unique<tovrin_clock>();
    // How children are started and their process groups signalled; tests
    // put fakes here. The platform's calls, as veltrane_proc_execp_nowait_fds
    // and killpg answer.
    std::function<pid_t(const char *file, char *const argv[], int *stdout_fd, int *stderr_fd)>
        spawn = [this](const char *file, char *const argv[], int *stdout_fd, int *stderr_fd) {
            return tovrin_fd_limit_spawn(fd_limit, file, argv, stdout_fd, stderr_fd);
        };
    std::function<int(pid_t group, int signal)> signal_group = killpg;
    // Raised for the children's pipes; children get the limit the daemon was
    // started with.
    tovrin_fd_limit fd_limit;
    tovrin_conn_list conns;
    tovrin_conn_list new_conns;
    std::deque<tovrin_msg> message_queue;
    event_slot dispatch_event;
    bool reloading_config = false;
    // Called with every configuration parsed, before its names are resolved
    // and it is handed over; the simulator sets its own log masks here.
    // Empty in the daemon.
    std::function<void(tovrin_inst *inst)> config_parsed;
    // Conns one variable search may visit; tests lower it.
    long var_search_max_visits = TOVRIN_VAR_SEARCH_MAX_VISITS;
    // The line of the configuration file being read, counted from 1; 0
    // outside a load. Lets whoever reads the log say where a message came
    // from.
    int config_line = 0;
};

// The key through which the store hands the daemon its control commands.
extern const char tovrin_command_key[];

// Creates the event base and fills inst: store events, timers, the dispatch
// event, the command-key subscription and default settings. Returns the
// base, or null (inst untouched) when no base can be created, or null when
// the settings cannot be allocated.
event_base *tovrin_inst_init(int store_fd, tovrin_inst *inst);
