#include "sim/simulator.h"

#include <log4c/appender.h>
#include <log4c/logging_event.h>
#include <log4c/priority.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <exception>
#include <memory>
#include <stdexcept>
#include <unordered_map>

#include "config/reload.h"
#include "daemon/daemon.h"
#include "daemon/log.h"
#include "daemon/log_mask.h"
#include "daemon/paths.h"
#include "daemon/virtual_clock.h"
#include "platform/unique_fd.h"
#include "sim/answers.h"
#include "stord/frame.h"
#include "stord/store.h"
#include "supervise/action.h"
#include "supervise/child_exit.h"
#include "supervise/conn.h"
#include "supervise/globals.h"
#include "supervise/inst.h"
#include "supervise/state.h"

namespace {

// The store's two connections: the daemon's, and that of the other
// services, through which the script's commands and values arrive.
constexpr uint64_t DAEMON = 1;
constexpr uint64_t OPERATOR = 2;
// Pids of simulated children; no real process is ever signalled with them.
constexpr pid_t FIRST_PID = 1000000;
// Ended children kept for reuse at most.
constexpr size_t SPARE_CHILDREN = 1024;
// Loop turns one settling may take before the daemon is deemed stuck.
constexpr int SETTLE_TURNS = 1000000;

struct event_deleter {
    void operator()(event *ev) const { event_free(ev); }
};
using event_ptr = std::unique_ptr<event, event_deleter>;

class simulator;

// A child the daemon believes it started. It never runs: its exit comes
// from its timer, when the script's answer or a signal says it ends.
struct sim_child {
    simulator *sim;
    pid_t pid;
    bool resolved = false;  // its conn and kind are known (from the daemon's own table)
    std::string conn;
    int kind = -1;
    bool ignores_term = false;
    int wait_status = 0;  // what its pending exit reports, as waitpid would
    event_ptr exit_timer;
};

// The script's events of one time, fired together by one timer.
struct script_batch {
    simulator *sim;
    std::vector<size_t> events;  // indexes into the script, in line order
    event_ptr timer;
};

bool mask_word_known(const tovrin_log_mask_vocabulary &vocabulary, const std::string &word) {
    std::string name = word[0] == '+' || word[0] == '-' ? word.substr(1) : word;
    for (const auto *rows : {&vocabulary.words, &vocabulary.aliases}) {
        size_t n = rows == &vocabulary.words ? vocabulary.n_words : vocabulary.n_aliases;
        for (size_t i = 0; i < n; i++) {
            if (name == (*rows)[i].word)
                return true;
        }
    }
    return false;
}

class simulator {
  public:
    simulator(const sim_script &script, const sim_settings &settings, FILE *out, bool keep);
    ~simulator();
    simulator(const simulator &) = delete;
    simulator &operator=(const simulator &) = delete;

    sim_outcome run();

    // Callbacks, each reached through a guard that keeps exceptions out of
    // libevent and log4c.
    void on_log(int priority, const char *message);
    void script_fire(script_batch *batch);
    void child_exit(sim_child *child);
    void fault(std::exception_ptr error) {
        if (!fault_)
            fault_ = error;
        event_base_loopbreak(inst_.base.get());
    }

  private:
    void emit(const char *verb, const std::string &text);
    void apply(const sim_event &event);
    void settle();
    void pump();
    void drain();
    void daemon_request(const std::string &body);
    void operator_set(const std::string &key, const std::string &value);
    void flush();
    void release_logs(bool all);
    bool resolve(sim_child &child);
    void exit_in(sim_child &child, int wait_status, long seconds);
    void signal_child(pid_t pid, int sig);
    bool quiet();
    // The daemon needs its paths only to read the configuration; without
    // them it looks for no snapshot marker, a failed open on every message.
    template <typename F>
    void with_paths(F &&f) {
        inst_.paths = &paths_;
        f();
        inst_.paths = nullptr;
    }

    const sim_script &script_;
    const sim_settings settings_;
    FILE *out_;
    bool keep_;
    sim_outcome outcome_;
    long last_change_ = -1;  // when the last line other than a log line was written

    tovrin_paths paths_;
    unique_fd store_end_;
    unique_fd daemon_end_;
    tovrin_inst inst_;
    tovrin_virtual_clock *clock_ = nullptr;
    std::optional<tovrin_log_setup> log_;

    stord_store store_{nullptr};
    stord_frame_reader reader_;
    std::string to_daemon_;  // notifications not yet written to the daemon
    uint64_t frames_read_ = 0;
    // Log lines waiting for the store requests the daemon queued before
    // them, by the number of requests read once they may go.
    std::deque<std::pair<uint64_t, std::string>> held_logs_;

    sim_answers answers_;
    std::unordered_map<pid_t, std::unique_ptr<sim_child>> children_;
    std::vector<pid_t> unresolved_;                  // spawned since the last pump
    std::vector<std::unique_ptr<sim_child>> ended_;  // let go outside their own callback
    // Ended children kept for the next spawns, their timers with them: a
    // test run every few seconds per conn would otherwise allocate both.
    std::vector<std::unique_ptr<sim_child>> spare_;
    pid_t next_pid_ = FIRST_PID;

    std::vector<std::unique_ptr<script_batch>> batches_;
    size_t batches_left_ = 0;
    bool parsed_ = false;
    std::exception_ptr fault_;
};

template <typename F>
void guarded(simulator *sim, F &&f) noexcept {
    try {
        f();
    } catch (...) {
        sim->fault(std::current_exception());
    }
}

void script_timer_cb(evutil_socket_t, short, void *arg) {
    auto *batch = static_cast<script_batch *>(arg);
    guarded(batch->sim, [batch] { batch->sim->script_fire(batch); });
}

void child_exit_cb(evutil_socket_t, short, void *arg) {
    auto *child = static_cast<sim_child *>(arg);
    guarded(child->sim, [child] { child->sim->child_exit(child); });
}

int log_append(log4c_appender_t *appender, const log4c_logging_event_t *event) {
    auto *sim = static_cast<simulator *>(log4c_appender_get_udata(appender));
    guarded(sim, [&] { sim->on_log(event->evt_priority, event->evt_msg); });
    return 0;
}

const log4c_appender_type_t timeline_log_type = {"tovrin_sim_timeline", nullptr, log_append,
                                                 nullptr};

simulator::simulator(const sim_script &script, const sim_settings &settings, FILE *out, bool keep)
    : script_(script), settings_(settings), out_(out), keep_(keep) {
    // Only the configuration is read; every other path is empty, so no
    // dump, snapshot or uptime file is ever looked for.
    paths_.config_file = settings.config_path;
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0)
        throw std::runtime_error(std::string("socketpair: ") + strerror(errno));
    daemon_end_.reset(pair[0]);
    store_end_.reset(pair[1]);
    log_.emplace(tovrin_log_setup::open_custom(&timeline_log_type, this));
    if (tovrin_inst_init(daemon_end_.get(), &inst_) == nullptr)
        throw std::runtime_error("cannot set up the daemon's instance");
    auto clock = std::make_unique<tovrin_virtual_clock>(0);
    clock_ = clock.get();
    inst_.clock = std::move(clock);

    inst_.spawn = [this](const char *, char *const *, int *stdout_fd, int *stderr_fd) -> pid_t {
        // The child writes nothing: its output events are never ready.
        *stdout_fd = -1;
        *stderr_fd = -1;
        std::unique_ptr<sim_child> child;
        if (spare_.empty()) {
            child = std::make_unique<sim_child>();
            child->sim = this;
        } else {
            child = std::move(spare_.back());
            spare_.pop_back();
            child->resolved = false;
            child->conn.clear();
            child->kind = -1;
            child->ignores_term = false;
            child->wait_status = 0;
        }
        child->pid = next_pid_;
        unresolved_.reserve(unresolved_.size() + 1);
        children_.emplace(next_pid_, std::move(child));
        unresolved_.push_back(next_pid_);
        errno = 0;
        return next_pid_++;
    };
    inst_.signal_group = [this](pid_t pid, int sig) {
        signal_child(pid, sig);
        return 0;
    };
    inst_.config_parsed = [this](tovrin_inst *inst) {
        parsed_ = true;
        if (!settings_.masks)
            return;
        for (tovrin_conn &conn : inst->new_conns)
            conn.log_mask = settings_.masks->conn;
        inst->new_globals->default_log_mask = settings_.masks->conn;
        inst->new_globals->instance_log_mask = settings_.masks->instance;
    };
}

simulator::~simulator() {
    // The conns go with the instance and signal their children on the way:
    // nothing of ours may be reached then, nor any log line written.
    log_.reset();
    inst_.signal_group = [](pid_t, int) { return 0; };
    inst_.config_parsed = nullptr;
}

void simulator::emit(const char *verb, const std::string &text) {
    timeline_event event{static_cast<double>(clock_->now()), verb, text};
    std::string line = timeline_format(event);
    line += '\n';
    fwrite(line.data(), 1, line.size(), out_);
    if (strcmp(verb, "log") != 0)
        last_change_ = clock_->now();
    if (keep_)
        outcome_.timeline.push_back(std::move(event));
}

void simulator::on_log(int priority, const char *message) {
    // Requests the daemon queued before this line come before it.
    drain();
    std::string text = std::string(log4c_priority_to_string(priority)) + " " + message;
    uint64_t after = frames_read_ + inst_.store_out_queue.size();
    if (after == frames_read_ && held_logs_.empty())
        emit("log", text);
    else
        held_logs_.emplace_back(after, std::move(text));
}

void simulator::release_logs(bool all) {
    while (!held_logs_.empty() && (all || held_logs_.front().first <= frames_read_)) {
        emit("log", held_logs_.front().second);
        held_logs_.pop_front();
    }
}

void simulator::drain() {
    char buffer[65536];
    for (ssize_t n; (n = read(store_end_.get(), buffer, sizeof buffer)) > 0;)
        reader_.feed(std::string_view(buffer, static_cast<size_t>(n)));
    for (std::string body; reader_.next(body) == stord_frame_reader::result::frame;)
        daemon_request(body);
}

void simulator::daemon_request(const std::string &body) {
    std::vector<std::string_view> f = stord_frame_split(body, 4);
    const std::string prefix = "tovrin.", suffix = ".status";
    if (f[0] == "1" && f.size() == 4) {
        std::string key(f[1]), value(f[3]);
        if (key.size() > prefix.size() + suffix.size() && key.starts_with(prefix) &&
            key.ends_with(suffix))
            emit("state", key.substr(prefix.size(), key.size() - prefix.size() - suffix.size()) +
                              " " + value);
        else
            emit("set", key + " " + value);
    } else if (f[0] == "9" && f.size() == 2) {
        emit("del", std::string(f[1]));
    }
    std::vector<stord_store::outgoing> out;
    if (std::optional<std::string> refused = store_.handle(DAEMON, body, out))
        fprintf(stderr, "tovrin-sim: the store would refuse a request of the daemon: %s\n",
                refused->c_str());
    for (const stord_store::outgoing &o : out) {
        if (o.conn == DAEMON)
            to_daemon_ += o.frame;
    }
    frames_read_++;
    release_logs(false);
}

void simulator::operator_set(const std::string &key, const std::string &value) {
    std::vector<stord_store::outgoing> out;
    store_.handle(OPERATOR, stord_frame_join({"1", key, "1", value}), out);
    for (const stord_store::outgoing &o : out) {
        if (o.conn == DAEMON)
            to_daemon_ += o.frame;
    }
}

void simulator::flush() {
    while (!to_daemon_.empty()) {
        ssize_t n = write(store_end_.get(), to_daemon_.data(), to_daemon_.size());
        if (n <= 0)
            return;  // full: the daemon reads some first
        to_daemon_.erase(0, static_cast<size_t>(n));
    }
}

bool simulator::resolve(sim_child &child) {
    if (child.resolved)
        return true;
    // The daemon lists a child under its pid as soon as the spawn returns.
    auto entry = inst_.running_actions.find(child.pid);
    if (entry == inst_.running_actions.end())
        return false;
    child.resolved = true;
    child.conn = entry->second->conn->name;
    child.kind = entry->second->type;
    sim_run run = answers_.take(child.conn, child.kind);
    child.ignores_term = run.ignores_term;
    if (run.status)
        exit_in(child, (*run.status & 0xff) << 8, run.after);
    return true;
}

void simulator::exit_in(sim_child &child, int wait_status, long seconds) {
    if (!child.exit_timer) {
        child.exit_timer.reset(evtimer_new(inst_.base.get(), child_exit_cb, &child));
        if (!child.exit_timer)
            throw std::bad_alloc();
    }
    event_del(child.exit_timer.get());
    child.wait_status = wait_status;
    clock_->arm(child.exit_timer.get(), seconds);
}

void simulator::signal_child(pid_t pid, int sig) {
    auto found = children_.find(pid);
    if (found == children_.end())
        return;
    sim_child &child = *found->second;
    if (!resolve(child)) {
        // Signalled before the daemon listed it: it will never ask after it.
        ended_.push_back(std::move(found->second));
        children_.erase(found);
        return;
    }
    if ((sig != SIGTERM && sig != SIGKILL) || (sig == SIGTERM && child.ignores_term))
        return;
    // A child whose exit is due now has ended already; the signal finds it gone.
    std::optional<long> due = child.exit_timer ? clock_->due(child.exit_timer.get()) : std::nullopt;
    if (due && *due == clock_->now())
        return;
    exit_in(child, sig, 0);
}

void simulator::child_exit(sim_child *child) {
    auto found = children_.find(child->pid);
    if (found == children_.end())
        return;
    std::unique_ptr<sim_child> owned = std::move(found->second);
    children_.erase(found);
    pid_t pid = owned->pid;
    int status = owned->wait_status;
    ended_.push_back(std::move(owned));
    tovrin_child_exited(&inst_, pid, status);
}

void simulator::pump() {
    drain();
    for (pid_t pid : unresolved_) {
        auto found = children_.find(pid);
        if (found != children_.end() && !resolve(*found->second)) {
            ended_.push_back(std::move(found->second));
            children_.erase(found);
        }
    }
    unresolved_.clear();
    flush();
    for (std::unique_ptr<sim_child> &child : ended_) {
        if (spare_.size() < SPARE_CHILDREN) {
            if (child->exit_timer)
                event_del(child->exit_timer.get());
            spare_.push_back(std::move(child));
        }
    }
    ended_.clear();
}

void simulator::settle() {
    event_base *base = inst_.base.get();
    // At least one turn: settling follows timers just made active.
    for (int turn = 0; turn < SETTLE_TURNS; turn++) {
        event_base_loop(base, EVLOOP_NONBLOCK);
        if (fault_)
            std::rethrow_exception(fault_);
        pump();
        int unread = 0;
        ioctl(daemon_end_.get(), FIONREAD, &unread);
        if (event_base_get_num_events(base, EVENT_BASE_COUNT_ACTIVE) == 0 &&
            inst_.message_queue.empty() && inst_.store_out_queue.empty() &&
            inst_.store_rx_state == 0 && unread == 0 && to_daemon_.empty())
            return;
    }
    throw std::runtime_error("the daemon never settled");
}

void simulator::apply(const sim_event &e) {
    const char *verb = e.what == sim_event::CMD      ? "cmd"
                       : e.what == sim_event::RELOAD ? "reload"
                                                     : "inject";
    emit(verb, e.what == sim_event::CMD || e.what == sim_event::RELOAD ? e.text : e.words);
    if ((e.what == sim_event::ANSWER || e.what == sim_event::UP_EXITS) &&
        inst_.conns.find(e.conn) == nullptr && clock_->now() > 0)
        fprintf(stderr, "tovrin-sim: line %d: no conn %s at %ld\n", e.line, e.conn.c_str(),
                clock_->now());
    switch (e.what) {
        case sim_event::ANSWER:
            answers_.set(e.conn, e.kind, e.answer);
            break;
        case sim_event::UP_EXITS:
            for (auto &[pid, child] : children_) {
                if (child->resolved && child->kind == SIM_UP && child->conn == e.conn)
                    exit_in(*child, (e.status & 0xff) << 8, 0);
            }
            break;
        case sim_event::CMD:
            operator_set(tovrin_command_key, e.text);
            break;
        case sim_event::SET:
            operator_set(e.key, e.text);
            break;
        case sim_event::RELOAD:
            paths_.config_file = e.text;
            with_paths([this] { tovrin_config_sighup(-1, EV_SIGNAL, &inst_); });
            break;
    }
}

void simulator::script_fire(script_batch *batch) {
    for (size_t index : batch->events)
        apply(script_.events[index]);
    batches_left_--;
}

bool simulator::quiet() {
    if (batches_left_ > 0 || !unresolved_.empty())
        return false;
    for (const auto &[pid, child] : children_) {
        if (child->exit_timer && clock_->due(child->exit_timer.get()))
            return false;
    }
    std::unordered_map<const event *, const tovrin_conn *> tests;
    for (tovrin_conn &conn : inst_.conns) {
        if (conn.command_part != nullptr && conn.command_part->test_event.raw() != nullptr)
            tests.emplace(conn.command_part->test_event.raw(), &conn);
    }
    for (const tovrin_virtual_clock::timer &t : clock_->timers(inst_.base.get())) {
        // The keepalive repeats itself; once it has run after the last change
        // with nothing to start, it never will.
        if (t.ev == inst_.tovrin_timer.raw() && !t.on_wall) {
            if (t.armed_at <= last_change_)
                return false;
            continue;
        }
        // So do the tests of a conn that is up, or tested and held back by
        // its group, when every coming run passes.
        auto found = tests.find(t.ev);
        if (found == tests.end())
            return false;
        const tovrin_conn &conn = *found->second;
        bool steady =
            (conn.current_state == TOVRIN_STATE_UP || conn.current_state == TOVRIN_STATE_TESTED) &&
            conn.n_test_failures == 0 &&
            answers_.steady_pass(conn.name, SIM_TEST, conn.testtimeout);
        if (!steady)
            return false;
    }
    return true;
}

sim_outcome simulator::run() {
    event_base *base = inst_.base.get();
    // Answers and store values given for time 0 are the world the daemon
    // starts in; everything else happens once it has started.
    std::unordered_map<long, script_batch *> by_time;
    for (size_t i = 0; i < script_.events.size(); i++) {
        const sim_event &e = script_.events[i];
        if (e.time == 0 && (e.what == sim_event::ANSWER || e.what == sim_event::SET)) {
            apply(e);
            continue;
        }
        script_batch *&batch = by_time[e.time];
        if (batch == nullptr) {
            batches_.push_back(std::make_unique<script_batch>());
            batch = batches_.back().get();
            batch->sim = this;
            batch->timer.reset(evtimer_new(base, script_timer_cb, batch));
            if (!batch->timer)
                throw std::bad_alloc();
            // Armed before the daemon arms anything: at a time shared with
            // the daemon's timers, the script goes first.
            clock_->arm(batch->timer.get(), e.time);
        }
        batch->events.push_back(i);
    }
    batches_left_ = batches_.size();

    with_paths([this] { tovrin_daemon_start(&inst_, [](unsigned) {}); });
    settle();
    if (!parsed_) {
        outcome_.result = sim_outcome::NOT_LOADED;
    } else {
        long last = script_.events.empty() ? 0 : script_.events.back().time;
        long limit = script_.end.value_or(last + SIM_SETTLE_LIMIT);
        bool wall = false, settled = false;
        auto settle_cb = [this] { settle(); };
        while (clock_->fire_next(base, limit, settle_cb, &wall)) {
            if (!script_.end && batches_left_ == 0 && quiet()) {
                settled = true;
                break;
            }
        }
        if (wall) {
            outcome_.result = sim_outcome::WALL_TIMER;
        } else if (script_.end || (!settled && !quiet())) {
            if (!script_.end)
                outcome_.result = sim_outcome::STILL_CHANGING;
            clock_->advance_to(base, limit, settle_cb);
        }
    }
    release_logs(true);
    emit("end", "");
    outcome_.end = clock_->now();
    return std::move(outcome_);
}

}  // namespace

std::optional<sim_log_masks> sim_log_masks_parse(const std::string &words) {
    sim_log_masks masks{TOVRIN_CONN_LOG_DEFAULT, TOVRIN_INST_LOG_DEFAULT};
    size_t start = 0;
    do {
        size_t comma = words.find(',', start);
        std::string word = words.substr(start, comma - start);
        start = comma == std::string::npos ? comma : comma + 1;
        bool conn = !word.empty() && mask_word_known(tovrin_conn_log_masks, word);
        bool instance = !word.empty() && mask_word_known(tovrin_instance_log_masks, word);
        if (!conn && !instance)
            return std::nullopt;
        if (conn)
            tovrin_log_mask_parse(tovrin_conn_log_masks, nullptr, &masks.conn, word.c_str());
        if (instance)
            tovrin_log_mask_parse(tovrin_instance_log_masks, nullptr, &masks.instance,
                                  word.c_str());
    } while (start != std::string::npos);
    return masks;
}

sim_outcome tovrin_simulate(const sim_script &script, const sim_settings &settings, FILE *out,
                            bool keep_timeline) {
    simulator sim(script, settings, out, keep_timeline);
    return sim.run();
}
