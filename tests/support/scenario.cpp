// The scenario language. A file holds scenarios, each opened by a line
// "scenario NAME". Lines starting with '#' are comments.
//
//   | TEXT         a line of the configuration file ("| " or "|" is cut off,
//                  ROOT stands for the root's path, " ; " starts a clause
//                  line); the lines gathered are written before the next step
//   logs N         capture log records up to priority N (600 unless given)
//
// Steps, at the start of a line, each followed by the daemon running until
// nothing is left to do; "STEP ; STEP" runs both before the expectations:
//
//   start                        start-up: load, boot delay, first messages
//   load                         the configuration is put in force, no more
//   cmd TEXT                     TEXT arrives on the control-command key
//   notify KEY VALUE             a value notification for KEY
//   frame FIELDS                 a notification body, fields split by '|',
//                                with \0 \r \n escapes
//   msg CONN TYPE                the daemon delivers a message to CONN
//   queue CONN TYPE              ... and the next step comes before it is handled
//   exit CONN PROG CODE          CONN's running PROG exits with CODE
//   killed CONN PROG SIGNAL      ... is killed by SIGNAL (a number)
//   fire TIMER                   a pending timer fires (see timers below)
//   clock +N                     the monotonic clock moves N seconds on
//   hup | usr1 | usr2            the signal arrives
//   write PATH TEXT | remove PATH   a file under the root changes
//   nospawn PROG | spawn PROG    spawning PROG fails from now on | works again
//   missing PROG                 PROG cannot be executed: its child must exit 127
//
// Expectations, indented under a step. Events are matched per channel, in
// order and exactly, unless the step ends with " ..." or lists "..." (then in
// order among others):
//
//   status CONN STATE | set KEY FLAG VALUE | sub KEY | unsub KEY | del KEY
//   status CONN: STATE, STATE...    several status lines of one conn
//   log PRIORITY MESSAGE
//   run CONN ARGV...  |  kill CONN PROG SIGNAL  |  sleep SECONDS
//                       (an empty argument shows as '', control bytes as \xNN)
//
// and checks of the state after the step:
//
//   state CONN STATE, CONN STATE...   timer NAME SECONDS   idle NAME, NAME...
//   same PATH GOLDEN [SKIP]   the file under the root equals GOLDEN (beside
//                             the scenario file) after SKIP lines
//
// Timers: keepalive, reload, CONN.test, CONN.failover, CONN.failforward,
// CONN.updelay, CONN.PROG.timeout, CONN.PROG.kill, CONN.PROG.respawn. The failover timestamp's
// value reads NOW when it is the current time; the root's path reads ROOT.
// Children never run: spawns are recorded and exits come from the steps.

#include "support/scenario.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "config/graph_dump.h"
#include "config/reload.h"
#include "config/state_dump.h"
#include "daemon/daemon.h"
#include "store/frame.h"
#include "supervise/child_exit.h"
#include "supervise/conn.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"
#include "support/log_capture.h"
#include "support/test_inst.h"

namespace {

using lines = std::vector<std::string>;

// The index-th blank-separated word of text; rest gets what follows it.
std::string word_at(const std::string &text, size_t index, std::string *rest = nullptr) {
    std::istringstream in(text);
    std::string word;
    for (size_t i = 0; i <= index; i++) {
        word.clear();
        in >> word;
    }
    if (rest != nullptr) {
        rest->clear();
        in >> std::ws;
        std::getline(in, *rest);
    }
    return word;
}

std::string trimmed(const std::string &text) {
    size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string join(const lines &words, const char *separator = " ") {
    std::string out;
    for (const std::string &w : words)
        out += (out.empty() ? "" : separator) + w;
    return out;
}

// text with control characters written as \xNN.
std::string visible(const std::string &text) {
    std::string out;
    for (unsigned char c : text) {
        char hex[8];
        snprintf(hex, sizeof hex, "\\x%02x", c);
        out += c < 0x20 ? std::string(hex) : std::string(1, static_cast<char>(c));
    }
    return out;
}

// A child the fake spawner made. Nothing runs: the write ends of its pipes
// stay open until a step ends it.
struct fake_child {
    pid_t pid;
    std::string conn;
    lines argv;
    unique_fd out, err;
    bool alive = true;
};

class runner {
  public:
    explicit runner(const scenario &s) : s_(s) {}

    void run();

  private:
    void fail(int line, const std::string &what) {
        ADD_FAILURE_AT(s_.file.c_str(), line) << s_.name << ": " << what;
        failed_ = true;
    }

    void hook_instance();
    std::string conn_running(const char *argv0);
    void step(int line, const std::string &text);
    void settle();
    void drain_store();
    void store_events(lines *out);
    void send_frame(const std::string &body);
    fake_child *child(int line, const std::string &conn, const std::string &program);
    event_slot *timer(int line, const std::string &name);
    void match(int line, const lines &expected, const lines &produced);
    void check(int line, const std::string &text);
    std::string rooted(std::string text) const;

    const scenario &s_;
    bool failed_ = false;
    test_inst t_;
    std::unique_ptr<log_capture> log_;
    size_t log_seen_ = 0;
    timespec clock_{1000, 0};
    std::vector<std::unique_ptr<fake_child>> children_;
    pid_t next_pid_ = 4000000;
    std::set<std::string> failing_, missing_;
    lines proc_;
    std::string store_bytes_;
    std::string config_;
    bool config_pending_ = false;
};

std::string runner::rooted(std::string text) const {
    const std::string &root = t_.root.path();
    for (size_t at; (at = text.find(root)) != std::string::npos;)
        text.replace(at, root.size(), "ROOT");
    return text;
}

// The conn whose queued entry holds argv0, the vector being spawned.
std::string runner::conn_running(const char *argv0) {
    for (tovrin_conn &conn : t_.inst.conns) {
        for (auto *queue : {&conn.queued_actions, &conn.queued_up_actions}) {
            for (const auto &entry : *queue) {
                if (!entry->argv.empty() && entry->argv.front().data() == argv0)
                    return conn.name;
            }
        }
    }
    return "?";
}

void runner::hook_instance() {
    tovrin_inst &inst = t_.inst;
    inst.clock_monotonic = [this](timespec *now) {
        *now = clock_;
        return 0;
    };
    inst.spawn = [this](const char *file, char *const argv[], int *out, int *err) -> pid_t {
        if (failing_.count(file) != 0) {
            errno = ENOENT;
            return -1;
        }
        int exec_error = missing_.count(file) != 0 ? ENOENT : 0;
        auto child = std::make_unique<fake_child>();
        child->pid = next_pid_++;
        child->conn = conn_running(argv[0]);
        for (char *const *arg = argv; *arg != nullptr; ++arg)
            child->argv.push_back(*arg);
        int o[2], e[2];
        if (pipe2(o, O_NONBLOCK | O_CLOEXEC) != 0 || pipe2(e, O_NONBLOCK | O_CLOEXEC) != 0)
            return -1;
        *out = o[0];
        *err = e[0];
        child->out.reset(o[1]);
        child->err.reset(e[1]);
        lines shown;
        for (const std::string &arg : child->argv)
            shown.push_back(arg.empty() ? "''" : visible(arg));
        proc_.push_back("run " + child->conn + " " + join(shown));
        children_.push_back(std::move(child));
        errno = exec_error;
        return children_.back()->pid;
    };
    inst.signal_group = [this](pid_t pid, int sig) {
        for (const auto &child : children_) {
            if (child->pid == pid)
                proc_.push_back("kill " + child->conn + " " + child->argv.front() +
                                (sig == SIGTERM   ? " TERM"
                                 : sig == SIGKILL ? " KILL"
                                                  : " ?"));
        }
        return 0;
    };
    for (const char *dir : {"etc/config", "tmp", "proc", "var/run", "var/mnt/storage.usb"})
        t_.root.make_dirs(dir);
}

void runner::drain_store() {
    char buf[65536];
    ssize_t n;
    while ((n = read(t_.store_end.get(), buf, sizeof buf)) > 0)
        store_bytes_.append(buf, static_cast<size_t>(n));
}

void runner::settle() {
    tovrin_inst &inst = t_.inst;
    for (int turn = 0; turn < 10000; turn++) {
        drain_store();
        int unread = 0;
        ioctl(t_.daemon_end.get(), FIONREAD, &unread);
        bool quiet = inst.message_queue.empty() && inst.store_out_queue.empty() &&
                     inst.store_rx_state == 0 && unread == 0;
        event_base_loop(inst.base.get(), EVLOOP_NONBLOCK);
        if (quiet && inst.message_queue.empty()) {
            drain_store();
            return;
        }
    }
    fail(0, "the daemon never settled");
}

// The store requests read so far, as expectation lines.
void runner::store_events(lines *out) {
    size_t pos = 0;
    while (store_bytes_.size() - pos >= TOVRIN_FRAME_HEADER) {
        uint32_t length =
            tovrin_frame_length(reinterpret_cast<const unsigned char *>(store_bytes_.data() + pos));
        if (store_bytes_.size() - pos - TOVRIN_FRAME_HEADER < length)
            break;
        lines f;
        std::istringstream body(store_bytes_.substr(pos + TOVRIN_FRAME_HEADER, length));
        for (std::string field; std::getline(body, field, TOVRIN_FRAME_SEPARATOR);)
            f.push_back(field);
        pos += TOVRIN_FRAME_HEADER + length;
        std::string type = f.empty() ? "" : f[0];
        if (type == "1" && f.size() == 4) {
            const std::string &key = f[1];
            if (f[2] == "2" && key.rfind("tovrin.", 0) == 0 && key.size() > 14 &&
                key.compare(key.size() - 7, 7, ".status") == 0) {
                out->push_back("status " + key.substr(7, key.size() - 14) + " " + f[3]);
                continue;
            }
            std::string value = f[3];
            if (key.find(".failover-timestamp") != std::string::npos &&
                std::abs(std::atol(value.c_str()) - time(nullptr)) <= 5)
                value = "NOW";
            out->push_back(trimmed("set " + key + " " + f[2] + " " + value));
        } else if ((type == "2" || type == "3") && f.size() == 3) {
            out->push_back((type == "2" ? "sub " : "unsub ") + f[2]);
        } else if (type == "9" && f.size() == 2) {
            out->push_back("del " + f[1]);
        } else {
            out->push_back("frame " + join(f, "|"));
        }
    }
    store_bytes_.erase(0, pos);
}

void runner::send_frame(const std::string &fields) {
    std::string body;
    for (size_t i = 0; i < fields.size(); i++) {
        char c = fields[i];
        if (c == '|') {
            c = TOVRIN_FRAME_SEPARATOR;
        } else if (c == '\\' && i + 1 < fields.size()) {
            char e = fields[++i];
            c = e == '0' ? '\0' : e == 'r' ? '\r' : e == 'n' ? '\n' : e;
        }
        body += c;
    }
    uint32_t n = htonl(static_cast<uint32_t>(body.size()));
    std::string frame(reinterpret_cast<const char *>(&n), sizeof n);
    frame += body;
    if (write(t_.store_end.get(), frame.data(), frame.size()) != static_cast<ssize_t>(frame.size()))
        fail(0, "could not write to the store link");
}

fake_child *runner::child(int line, const std::string &conn, const std::string &program) {
    for (const auto &c : children_) {
        if (c->alive && c->conn == conn && c->argv.front() == program)
            return c.get();
    }
    fail(line, "no running " + program + " for conn " + conn);
    return nullptr;
}

event_slot *runner::timer(int line, const std::string &name) {
    tovrin_inst &inst = t_.inst;
    if (name == "keepalive")
        return &inst.tovrin_timer;
    if (name == "reload")
        return &inst.config_reload_timer;
    size_t dot = name.rfind('.');
    std::string owner = name.substr(0, dot == std::string::npos ? 0 : dot);
    std::string which = dot == std::string::npos ? name : name.substr(dot + 1);
    if (which == "timeout" || which == "kill" || which == "respawn") {
        size_t conn_dot = owner.rfind('.');
        tovrin_conn *conn = inst.conns.find(owner.substr(0, conn_dot));
        if (conn == nullptr || conn_dot == std::string::npos)
            return fail(line, "no timer " + name), nullptr;
        std::string program = owner.substr(conn_dot + 1);
        for (auto *queue : {&conn->queued_actions, &conn->queued_up_actions}) {
            for (const auto &entry : *queue) {
                if (entry->command_name != program)
                    continue;
                if (which == "respawn")
                    return &entry->respawn_event;
                if (entry->pid != 0)
                    return which == "timeout" ? &entry->action_timeout_event
                                              : &entry->action_timeout_kill_event;
            }
        }
    } else if (tovrin_conn *conn = inst.conns.find(owner)) {
        if (which == "test")
            return &conn->test_event;
        if (which == "failover")
            return &conn->failover_event;
        if (which == "failforward")
            return &conn->failforward_event;
        if (which == "updelay")
            return &conn->up_action_failed_delay_event;
    }
    fail(line, "no timer " + name);
    return nullptr;
}

void runner::step(int line, const std::string &text) {
    if (config_pending_) {
        t_.write_config(config_);
        config_.clear();
        config_pending_ = false;
    }
    std::string rest;
    std::string verb = word_at(text, 0, &rest);
    tovrin_inst &inst = t_.inst;
    if (verb == "start") {
        tovrin_daemon_start(&inst, [this](unsigned seconds) {
            proc_.push_back("sleep " + std::to_string(seconds));
            double uptime = std::atof(t_.root.read_file("proc/uptime").c_str()) + seconds;
            t_.root.write_file("proc/uptime", std::to_string(uptime) + " 0.00\n");
        });
    } else if (verb == "load") {
        if (t_.load() != 0)
            fail(line, "the configuration does not load");
    } else if (verb == "cmd") {
        send_frame("8|" + std::string(inst.command_key) + "|0|0|" + rest);
    } else if (verb == "notify") {
        std::string value;
        std::string key = word_at(rest, 0, &value);
        send_frame("8|" + key + "|0|0|" + value);
    } else if (verb == "frame") {
        send_frame(rest);
    } else if (verb == "msg" || verb == "queue") {
        std::string type;
        tovrin_conn *conn = inst.conns.find(word_at(rest, 0, &type));
        int n = 0;
        while (n < 10 && type != tovrin_msg_type_name(n))
            n++;
        if (conn == nullptr || n == 10)
            return fail(line, "bad message: " + rest);
        tovrin_conn_deliver_message(&inst, nullptr, conn, n);
        if (verb == "queue")
            return;
    } else if (verb == "exit" || verb == "killed") {
        fake_child *c = child(line, word_at(rest, 0), word_at(rest, 1));
        if (c == nullptr)
            return;
        int value = std::atoi(word_at(rest, 2).c_str());
        c->alive = false;
        c->out.reset();
        c->err.reset();
        tovrin_child_exited(&inst, c->pid, verb == "exit" ? value << 8 : value);
    } else if (verb == "fire") {
        event_slot *slot = timer(line, rest);
        if (slot == nullptr)
            return;
        if (!slot->pending())
            return fail(line, "timer " + rest + " is not pending");
        event_active(slot->raw(), EV_TIMEOUT, 1);
    } else if (verb == "clock") {
        clock_.tv_sec += std::atol(rest.c_str());
    } else if (verb == "hup") {
        tovrin_config_sighup(SIGHUP, EV_SIGNAL, &inst);
    } else if (verb == "usr1") {
        tovrin_state_dump(SIGUSR1, EV_SIGNAL, &inst);
    } else if (verb == "usr2") {
        tovrin_graph_dump(SIGUSR2, EV_SIGNAL, &inst);
    } else if (verb == "write") {
        std::string content;
        std::string path = word_at(rest, 0, &content);
        t_.root.write_file(path, content + "\n");
    } else if (verb == "remove") {
        std::filesystem::remove(t_.root.file(rest));
    } else if (verb == "nospawn") {
        failing_.insert(rest);
    } else if (verb == "spawn") {
        failing_.erase(rest);
    } else if (verb == "missing") {
        missing_.insert(rest);
    } else {
        return fail(line, "unknown step: " + text);
    }
    settle();
}

// Per channel, produced must equal expected, or hold it in order when
// expected has "...".
void runner::match(int line, const lines &expected, const lines &produced) {
    static const std::map<std::string, int> channel_of = {
        {"status", 0}, {"set", 0}, {"sub", 0}, {"unsub", 0}, {"del", 0},
        {"frame", 0},  {"log", 1}, {"run", 2}, {"kill", 2},  {"sleep", 2},
    };
    bool loose = std::find(expected.begin(), expected.end(), "...") != expected.end();
    for (int channel = 0; channel < 3; channel++) {
        lines want, got;
        for (const std::string &e : expected) {
            auto it = channel_of.find(word_at(e, 0));
            if (it != channel_of.end() && it->second == channel)
                want.push_back(e);
        }
        for (const std::string &p : produced) {
            if (channel_of.at(word_at(p, 0)) == channel)
                got.push_back(p);
        }
        bool ok = want == got;
        if (loose) {
            ok = true;
            auto at = got.begin();
            for (const std::string &w : want) {
                at = std::find(at, got.end(), w);
                if (at == got.end()) {
                    ok = false;
                    break;
                }
                ++at;
            }
        }
        if (!ok)
            fail(line,
                 "expected:\n  " + join(want, "\n  ") + "\nproduced:\n  " + join(got, "\n  "));
    }
}

void runner::check(int line, const std::string &text) {
    std::string rest;
    std::string what = word_at(text, 0, &rest);
    if (what == "state") {
        std::istringstream items(rest);
        for (std::string item; std::getline(items >> std::ws, item, ',');) {
            std::string state;
            std::string name = word_at(item, 0, &state);
            tovrin_conn *conn = t_.inst.conns.find(name);
            std::string actual =
                conn != nullptr ? tovrin_state_name(conn->current_state) : "(none)";
            if (actual != trimmed(state))
                fail(line, name + " is " + actual + ", not " + state);
        }
    } else if (what == "idle") {
        std::istringstream names(rest);
        for (std::string name; std::getline(names >> std::ws, name, ',');) {
            event_slot *slot = timer(line, trimmed(name));
            if (slot != nullptr && slot->pending())
                fail(line, "timer " + name + " is pending");
        }
    } else if (what == "timer") {
        event_slot *slot = timer(line, word_at(rest, 0));
        if (slot == nullptr)
            return;
        timeval when{}, now{};
        if (!slot->pending() || event_pending(slot->raw(), EV_TIMEOUT, &when) == 0)
            return fail(line, "timer " + rest + " is not pending");
        gettimeofday(&now, nullptr);
        double left = static_cast<double>(when.tv_sec - now.tv_sec) +
                      static_cast<double>(when.tv_usec - now.tv_usec) / 1e6;
        double want = std::atof(word_at(rest, 1).c_str());
        if (left > want + 0.01 || left < want - 1)
            fail(line, "timer " + rest + ": " + std::to_string(left) + " s left");
    } else if (what == "same") {
        std::ifstream in(t_.root.file(word_at(rest, 0)));
        std::string produced, skipped;
        for (int n = std::atoi(word_at(rest, 2).c_str()); n > 0; n--)
            std::getline(in, skipped);
        produced = rooted(
            std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
        std::filesystem::path golden =
            std::filesystem::path(s_.file).parent_path() / word_at(rest, 1);
        if (getenv("TOVRIN_UPDATE_GOLDEN") != nullptr)
            std::ofstream(golden) << produced;
        std::ifstream g(golden);
        std::string want((std::istreambuf_iterator<char>(g)), std::istreambuf_iterator<char>());
        if (produced != want)
            fail(line, "differs from " + golden.string() + ":\n" + produced);
    } else {
        fail(line, "unknown expectation: " + text);
    }
}

void runner::run() {
    int priority = TOVRIN_LOG_INFO;
    for (const auto &[line, text] : s_.lines) {
        if (text.rfind("logs ", 0) == 0)
            priority = std::atoi(text.c_str() + 5);
    }
    log_ = std::make_unique<log_capture>(priority);
    hook_instance();

    static const std::set<std::string> checks = {"state", "timer", "idle", "same"};
    size_t i = 0;
    const auto &all = s_.lines;
    while (i < all.size() && !failed_) {
        const auto &[line, text] = all[i++];
        if (text.empty() || text[0] == '#' || text.rfind("logs ", 0) == 0)
            continue;
        if (text[0] == '|') {
            size_t cut = text.size() > 1 && text[1] == ' ' ? 2 : 1;
            std::string config_line = text.substr(cut);
            for (size_t at; (at = config_line.find("ROOT")) != std::string::npos;)
                config_line.replace(at, 4, t_.root.path());
            for (size_t at; (at = config_line.find(" ; ")) != std::string::npos;)
                config_line.replace(at, 3, "\n\t");
            config_ += config_line + "\n";
            config_pending_ = true;
            continue;
        }
        // "STEP ..." checks what is listed among whatever else comes.
        bool loose = text.size() > 4 && text.compare(text.size() - 4, 4, " ...") == 0;
        std::istringstream chained(loose ? text.substr(0, text.size() - 4) : text);
        for (std::string one; std::getline(chained, one, ';') && !failed_;)
            step(line, trimmed(one));
        lines expected, produced, later;
        if (loose)
            expected.push_back("...");
        std::vector<int> later_lines;
        for (; i < all.size() && !all[i].second.empty() &&
               (all[i].second[0] == '\t' || all[i].second[0] == ' ' || all[i].second[0] == '#');
             i++) {
            std::string e = trimmed(all[i].second);
            if (e[0] == '#')
                continue;
            std::string states;
            std::string conn = word_at(e, 1, &states);
            if (word_at(e, 0) == "status" && !conn.empty() && conn.back() == ':') {
                // "status NAME: S1, S2, ..." is one status line per state.
                std::istringstream in(states);
                for (std::string state; std::getline(in >> std::ws, state, ',');)
                    expected.push_back("status " + conn.substr(0, conn.size() - 1) + " " +
                                       trimmed(state));
            } else if (checks.count(word_at(e, 0)) != 0) {
                later.push_back(e);
                later_lines.push_back(all[i].first);
            } else {
                expected.push_back(e);
            }
        }
        store_events(&produced);
        const std::vector<log_record> &records = log_->records();
        for (; log_seen_ < records.size(); log_seen_++)
            produced.push_back(trimmed(rooted("log " + std::to_string(records[log_seen_].priority) +
                                              " " + records[log_seen_].message)));
        produced.insert(produced.end(), proc_.begin(), proc_.end());
        proc_.clear();
        match(line, expected, produced);
        for (size_t k = 0; k < later.size() && !failed_; k++)
            check(later_lines[k], later[k]);
    }
}

}  // namespace

std::vector<scenario> scenarios_under(const std::string &dir) {
    std::vector<std::string> files;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir)) {
        if (entry.path().extension() == ".scn")
            files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    std::vector<scenario> out;
    for (const std::string &file : files) {
        std::ifstream in(file);
        std::string text;
        for (int line = 1; std::getline(in, text); line++) {
            if (text.rfind("scenario ", 0) == 0)
                out.push_back(scenario{file, text.substr(9), {}});
            else if (!out.empty() && out.back().file == file)
                out.back().lines.emplace_back(line, text);
        }
    }
    return out;
}

void scenario_run(const scenario &s) {
    runner(s).run();
}
