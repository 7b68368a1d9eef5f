// Runs every scenario file (*.scn) of the suite: each scenario is one test,
// named after its file and its title. A file holds scenarios, each opened by
// "scenario NAME"; lines starting with '#' are comments, and any other line
// before the first scenario fails the file.
//
//   | TEXT        a line of the configuration file ("| " is cut off, ROOT
//                 stands for the root's path, " ; " starts a clause line,
//                 " ;; " a definition); the strings gathered are written
//                 before the next step
//   logs N        capture log records up to priority N (600 unless given)
//
// Steps, at the start of a line, each followed by the daemon running until
// nothing is left to do; "STEP ; STEP" runs both before the expectations:
//
//   start | load            start-up (load, boot delay, first messages) | load only
//   cmd TEXT                TEXT arrives on the control-command key
//   frame FIELDS            a notification body, fields split by '|', with
//                           \0 \r \n escapes
//   msg CONN TYPE           the daemon delivers a message to CONN
//   queue CONN TYPE         ... and the next step comes before it is handled
//   exit CONN PROG CODE     CONN's running PROG exits with CODE
//   killed CONN PROG SIG    ... is killed by signal SIG (a number)
//   fire TIMER              a pending timer fires now, whenever it is due
//   clock +N                N seconds pass: the timers due on the way fire,
//                           earliest first, each with time at its due second
//   hup | usr1 | usr2       the signal arrives
//   write PATH TEXT | remove PATH    a file under the root changes
//   nospawn PROG | spawn PROG        spawning PROG fails from now on | works again
//   missing PROG            PROG cannot be executed: its child must exit 127
//
// Expectations, indented under a step, several to a line split by " ; ".
// Events are matched per channel (store, log, processes), in order and
// exactly, unless the step ends with " ..." (then in order among others):
//
//   status CONN STATE | set KEY FLAG VALUE | sub KEY | unsub KEY | del KEY
//   status CONN...: STATE, STATE...  each state in turn, of each conn in turn
//   group NAME INDEX ACTIVE MEMBERS [TIME]   the keys a group publishes for
//                   its active member, then the failover timestamp
//   log PRIORITY MESSAGE
//   run CONN ARGV...  |  kill CONN PROG SIGNAL  |  sleep SECONDS
//                     (an empty argument shows as '', control bytes as \xNN)
//   events GOLDEN [SECTION]   the expectations written in GOLDEN (beside
//                     the scenario file), or in its lines from "== SECTION"
//                     to the next "== ", '#' lines aside: a step's long,
//                     plain output
//
// and checks of the state after the step:
//
//   state CONN STATE, CONN STATE...   timer NAME SECONDS   idle NAME, NAME...
//   same PATH GOLDEN SKIP   the file under the root equals GOLDEN (beside the
//                           scenario file) after SKIP lines
//
// Time is virtual: it passes only by "clock" steps, and a timer fires only
// when a step fires it or time reaches it (a zero delay is due at once); a
// timer armed on the wall clock fails the scenario. After every step each
// queued message, running child and pending timer must belong to a conn in
// force (or to the instance). Timers: keepalive,
// reload, CONN.test, CONN.failover, CONN.failforward, CONN.updelay,
// CONN.PROG.timeout, CONN.PROG.kill, CONN.PROG.respawn. A failover timestamp
// reads NOW when it is the virtual wall clock; the root's path
// reads ROOT. Children never run: spawns are recorded, exits come from steps.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/time.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "config/graph_dump.h"
#include "config/reload.h"
#include "config/state_dump.h"
#include "daemon/daemon.h"
#include "daemon/virtual_clock.h"
#include "stord/frame.h"
#include "store/frame.h"
#include "supervise/child_exit.h"
#include "support/test_inst.h"

namespace {

using numbered = std::vector<std::pair<int, std::string>>;  // line number, text

// What the wall clock reads when a scenario starts: 2026-01-01 00:00:00 UTC.
constexpr time_t SCENARIO_WALL_START = 1767225600;

// The first words of the expected events.
const std::set<std::string> EVENTS = {"status", "set", "sub", "unsub", "del",
                                      "frame",  "log", "run", "kill",  "sleep"};

struct scenario {
    std::string file, name, test_name;
    numbered lines;
};

// The index-th blank-separated word of text ("" past the end); rest gets
// what follows it.
std::string word_at(const std::string &text, size_t index, std::string *rest = nullptr) {
    std::istringstream in(text);
    std::string word;
    for (size_t i = 0; i <= index; i++)
        word = (in >> word) ? word : "";
    if (rest != nullptr)
        std::getline(in >> std::ws, *rest);
    return word;
}

std::string trimmed(const std::string &text) {
    size_t first = text.find_first_not_of(" \t"), last = text.find_last_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

// The trimmed pieces of text between separators.
strings split(const std::string &text, char separator) {
    strings out;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, separator);)
        out.push_back(trimmed(item));
    return out;
}

// A child the fake spawner made. Nothing runs: the write end of its pipe
// stays open until a step ends it.
struct fake_child {
    pid_t pid;
    std::string conn, program;
    unique_fd out;
};

struct runner {
    const scenario &s;
    bool failed = false;
    test_inst t;
    std::unique_ptr<log_capture> log = std::make_unique<log_capture>();
    size_t log_seen = 0;
    tovrin_virtual_clock *clock;
    std::vector<fake_child> children;
    std::set<std::string> failing, missing;
    strings proc;
    stord_frame_reader store;
    std::string config;

    void fail(int line, const std::string &what) {
        ADD_FAILURE_AT(s.file.c_str(), line) << s.name << ": " << what;
        failed = true;
    }

    explicit runner(const scenario &sc) : s(sc) {
        tovrin_inst &inst = t.inst;
        auto owned = std::make_unique<tovrin_virtual_clock>(SCENARIO_WALL_START);
        clock = owned.get();
        inst.clock = std::move(owned);
        inst.spawn = [this, &inst](const char *file, char *const argv[], int *out,
                                   int *err) -> pid_t {
            int pipe[2];
            if (failing.count(file) != 0 || pipe2(pipe, O_NONBLOCK | O_CLOEXEC) != 0)
                return errno = ENOENT, -1;
            fake_child child{4000000 + static_cast<pid_t>(children.size()), "?", argv[0],
                             unique_fd(pipe[1])};
            // The conn is the one whose queued entry holds this very argv[0].
            for (tovrin_conn &conn : inst.conns) {
                if (conn.command_part == nullptr)
                    continue;
                tovrin_command_part &part = *conn.command_part;
                for (auto *queue : {&part.queued_actions, &part.queued_up_actions}) {
                    for (const auto &entry : *queue) {
                        if (!entry->argv.empty() && entry->argv.front().data() == argv[0])
                            child.conn = conn.name;
                    }
                }
            }
            std::string shown = "run " + child.conn;
            for (char *const *arg = argv; *arg != nullptr; ++arg) {
                shown += **arg == '\0' ? " ''" : " ";
                for (const char *c = *arg; *c != '\0'; c++) {
                    char hex[8];
                    snprintf(hex, sizeof hex, "\\x%02x", *c);
                    shown += static_cast<unsigned char>(*c) < 0x20 ? hex : std::string(1, *c);
                }
            }
            proc.push_back(shown);
            *out = pipe[0];
            *err = dup(pipe[0]);
            children.push_back(std::move(child));
            errno = missing.count(file) != 0 ? ENOENT : 0;
            return children.back().pid;
        };
        inst.signal_group = [this](pid_t pid, int sig) {
            for (const fake_child &child : children) {
                if (child.pid == pid)
                    proc.push_back("kill " + child.conn + " " + child.program + " " +
                                   sigabbrev_np(sig));
            }
            return 0;
        };
        for (const char *dir : {"etc/config", "tmp", "proc", "var/run", "var/mnt/storage.usb"})
            std::filesystem::create_directories(t.root.file(dir));
    }

    // Runs the loop until nothing is left to do, timers due by now included
    // (a zero delay is due at once); time itself stands still.
    void settle(int line) {
        run_until_quiet();
        clock->advance_to(t.inst.base.get(), clock->now(), [this] { run_until_quiet(); });
        std::set<const tovrin_conn *> live;
        for (tovrin_conn &conn : t.inst.conns)
            live.insert(&conn);
        for (const tovrin_msg &msg : t.inst.message_queue) {
            if (live.count(msg.dst) == 0 || (msg.src != nullptr && live.count(msg.src) == 0))
                fail(line, "a queued message names a conn not in force");
        }
        for (const auto &[pid, entry] : t.inst.running_actions) {
            if (live.count(entry->conn) == 0)
                fail(line, "child " + std::to_string(pid) + " belongs to a conn not in force");
        }
        for (const auto &timer : clock->timers(t.inst.base.get())) {
            if (timer.on_wall)
                fail(line, "a timer runs on the wall clock: " + timer_name(timer.ev));
            else if (timer_name(timer.ev).empty())
                fail(line, "a pending timer belongs to nothing in force");
        }
    }

    void run_until_quiet() {
        tovrin_inst &inst = t.inst;
        auto drain = [this] {
            char buf[65536];
            for (ssize_t n; (n = read(t.store_end.get(), buf, sizeof buf)) > 0;)
                store.feed(std::string_view(buf, static_cast<size_t>(n)));
        };
        for (int turn = 0; turn < 10000; turn++) {
            drain();
            int unread = 0;
            ioctl(t.daemon_end.get(), FIONREAD, &unread);
            bool quiet = inst.message_queue.empty() && inst.store_out_queue.empty() &&
                         inst.store_rx_state == 0 && unread == 0;
            event_base_loop(inst.base.get(), EVLOOP_NONBLOCK);
            if (quiet && inst.message_queue.empty())
                return drain();
        }
        fail(0, "the daemon never settled");
    }

    // The store requests read so far, as expectation lines.
    void store_events(strings *out) {
        for (std::string body; store.next(body) == stord_frame_reader::result::frame;) {
            strings f = split(body, TOVRIN_FRAME_SEPARATOR);
            const std::string type = f.empty() ? "" : f[0], key = f.size() > 1 ? f[1] : "";
            bool now = key.ends_with(".failover-timestamp") && f.size() == 4 &&
                       f[3] == std::to_string(clock->wall().tv_sec);
            if (type == "1" && f.size() == 4 && f[2] == "2" && key.starts_with("tovrin.") &&
                key.ends_with(".status") && key.size() > 14)
                out->push_back("status " + key.substr(7, key.size() - 14) + " " + f[3]);
            else if (type == "1" && f.size() == 4)
                out->push_back(trimmed("set " + key + " " + f[2] + " " + (now ? "NOW" : f[3])));
            else if ((type == "2" || type == "3") && f.size() == 3)
                out->push_back((type == "2" ? "sub " : "unsub ") + f[2]);
            else
                out->push_back((type == "9" && f.size() == 2 ? "del " : "frame ") +
                               join(strings(f.begin() + (type == "9"), f.end()), "|"));
        }
    }

    // Every timer a scenario can name, by name; null while never armed.
    std::map<std::string, event *> named_timers() {
        tovrin_inst &inst = t.inst;
        std::map<std::string, event *> out{{"keepalive", inst.tovrin_timer.raw()},
                                           {"reload", inst.config_reload_timer.raw()}};
        for (tovrin_conn &conn : inst.conns) {
            const std::string &n = conn.name;
            if (tovrin_group_part *group = conn.group_part.get())
                out.insert({{n + ".failover", group->failover_event.raw()},
                            {n + ".failforward", group->failforward_event.raw()}});
            if (conn.command_part == nullptr)
                continue;
            tovrin_command_part &part = *conn.command_part;
            out.insert({{n + ".test", part.test_event.raw()},
                        {n + ".updelay", part.up_action_failed_delay_event.raw()}});
            for (auto *queue : {&part.queued_actions, &part.queued_up_actions}) {
                for (const auto &e : *queue) {
                    std::string prefix = n + "." + e->command_name + ".";
                    out.insert({prefix + "respawn", e->respawn_event.raw()});
                    if (e->pid != 0)
                        out.insert({{prefix + "timeout", e->action_timeout_event.raw()},
                                    {prefix + "kill", e->action_timeout_kill_event.raw()}});
                }
            }
        }
        return out;
    }

    // The timer's event, null while it has never been armed.
    event *timer(int line, const std::string &name) {
        std::map<std::string, event *> all = named_timers();
        if (all.count(name) == 0)
            fail(line, "no timer " + name);
        return all.count(name) != 0 ? all[name] : nullptr;
    }

    // The timer's name; "" when nothing in force has it.
    std::string timer_name(const event *ev) {
        for (const auto &[name, named] : named_timers()) {
            if (named == ev)
                return name;
        }
        return "";
    }

    void step(int line, const std::string &text) {
        if (!config.empty())
            t.write_config(std::exchange(config, ""));
        std::string rest;
        const std::string verb = word_at(text, 0, &rest);
        tovrin_inst &inst = t.inst;
        if (verb == "start") {
            tovrin_daemon_start(&inst, [this](unsigned seconds) {
                proc.push_back("sleep " + std::to_string(seconds));
                double uptime = std::atof(t.root.read_file("proc/uptime").c_str()) + seconds;
                t.root.write_file("proc/uptime", std::to_string(uptime) + " 0.00\n");
            });
        } else if (verb == "load") {
            if (t.load() != 0)
                fail(line, "the configuration does not load");
        } else if (verb == "cmd" || verb == "frame") {
            std::string body = verb == "frame" ? rest : "8|config.tovrin.command|0|0|" + rest;
            std::replace(body.begin(), body.end(), '|', TOVRIN_FRAME_SEPARATOR);
            for (auto [escape, byte] : {std::pair{"\\0", '\0'}, {"\\r", '\r'}, {"\\n", '\n'}})
                body = replaced(body, escape, std::string(1, byte));
            body = stord_frame_encode(body);
            if (write(t.store_end.get(), body.data(), body.size()) != ssize_t(body.size()))
                return fail(line, "could not write to the store link");
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
            auto c = std::find_if(children.begin(), children.end(), [&](const fake_child &k) {
                return k.out.valid() && k.conn == word_at(rest, 0) && k.program == word_at(rest, 1);
            });
            if (c == children.end())
                return fail(line, "no running " + rest);
            c->out.reset();
            int value = std::atoi(word_at(rest, 2).c_str());
            tovrin_child_exited(&inst, c->pid, verb == "exit" ? value << 8 : value);
        } else if (verb == "fire") {
            event *ev = timer(line, rest);
            if (ev == nullptr || !clock->due(ev))
                return fail(line, "timer " + rest + " is not pending");
            tovrin_virtual_clock::fire(ev);
        } else if (verb == "clock") {
            clock->advance_to(inst.base.get(), clock->now() + std::atol(rest.c_str()),
                              [this] { run_until_quiet(); });
        } else if (verb == "hup" || verb == "usr1" || verb == "usr2") {
            auto handler = verb == "hup"    ? tovrin_config_sighup
                           : verb == "usr1" ? tovrin_state_dump
                                            : tovrin_graph_dump;
            handler(0, EV_SIGNAL, &inst);
        } else if (verb == "write") {
            std::string content, path = word_at(rest, 0, &content);
            t.root.write_file(path, content + "\n");
        } else if (verb == "remove") {
            std::filesystem::remove(t.root.file(rest));
        } else if (verb == "nospawn" || verb == "missing") {
            (verb == "nospawn" ? failing : missing).insert(rest);
        } else if (verb == "spawn") {
            failing.erase(rest);
        } else {
            return fail(line, "unknown step: " + text);
        }
        settle(line);
    }

    // Per channel (store, log, processes), produced must equal expected, or
    // hold it in order when loose.
    void match(int line, bool loose, const strings &expected, const strings &produced) {
        auto channel = [](const std::string &e) {
            std::string w = word_at(e, 0);
            return w == "log" ? 1 : w == "run" || w == "kill" || w == "sleep" ? 2 : 0;
        };
        for (int c = 0; c < 3; c++) {
            strings want, got;
            std::copy_if(expected.begin(), expected.end(), std::back_inserter(want),
                         [&](const std::string &e) { return channel(e) == c; });
            std::copy_if(produced.begin(), produced.end(), std::back_inserter(got),
                         [&](const std::string &p) { return channel(p) == c; });
            size_t found = 0;
            for (auto at = got.begin(); loose && found < want.size() && at != got.end(); ++at)
                found += *at == want[found] ? 1 : 0;
            if (loose ? found < want.size() : want != got)
                fail(line,
                     "expected:\n  " + join(want, "\n  ") + "\nproduced:\n  " + join(got, "\n  "));
        }
    }

    void check(int line, const std::string &text) {
        std::string rest;
        const std::string what = word_at(text, 0, &rest);
        if (what == "state") {
            for (const std::string &item : split(rest, ',')) {
                std::string state;
                tovrin_conn *conn = t.inst.conns.find(word_at(item, 0, &state));
                std::string actual = conn != nullptr ? tovrin_state_name(conn->current_state) : "?";
                if (actual != state)
                    fail(line, item + ": the conn is " + actual);
            }
        } else if (what == "idle" || what == "timer") {
            for (const std::string &item : split(rest, ',')) {
                event *ev = timer(line, word_at(item, 0));
                std::optional<long> due = ev != nullptr ? clock->due(ev) : std::nullopt;
                if (due.has_value() != (what == "timer"))
                    fail(line, "timer " + item + (due ? " is pending" : " is not pending"));
                long left = due.value_or(0) - clock->now();
                if (due && what == "timer" && std::to_string(left) != word_at(item, 1))
                    fail(line, "timer " + item + ": " + std::to_string(left) + " s left");
            }
        } else {  // same
            std::ifstream in(t.root.file(word_at(rest, 0)));
            std::string skip;
            for (int n = std::atoi(word_at(rest, 2).c_str()); n > 0; n--)
                std::getline(in, skip);
            std::string produced = replaced(std::string(std::istreambuf_iterator<char>(in), {}),
                                            t.root.path(), "ROOT");
            std::filesystem::path golden =
                std::filesystem::path(s.file).parent_path() / word_at(rest, 1);
            std::ifstream g(golden);
            if (produced != std::string(std::istreambuf_iterator<char>(g), {}))
                fail(line, "differs from " + golden.string() + ":\n" + produced);
        }
    }

    // Adds what one indented line expects, its parts split at " ; ".
    void expect(int line, const std::string &text, strings *expected, numbered *checks) {
        for (size_t at = 0, end; at != std::string::npos; at = end == text.npos ? end : end + 3) {
            end = text.find(" ; ", at);
            std::string e = trimmed(text.substr(at, end - at)), rest;
            std::string first = word_at(e, 0, &rest);
            // The words before a colon, if any.
            std::istringstream in(rest.substr(0, rest.find(':')));
            const strings words{std::istream_iterator<std::string>(in), {}};
            if (first == "status" && rest.find(':') != std::string::npos) {
                for (const std::string &state : split(rest.substr(rest.find(':') + 1), ','))
                    for (const std::string &conn : words)
                        expected->push_back("status " + conn + " " + state);
            } else if (first == "group" && (words.size() == 4 || words.size() == 5)) {
                const char *keys[] = {"active-connection-index", "active-connection-name",
                                      "connection-names", "failover-timestamp"};
                for (size_t k = 1; k < words.size(); k++)
                    expected->push_back("set tovrin." + words[0] + "." + keys[k - 1] + " 1 " +
                                        words[k]);
            } else if (first == "events") {
                std::ifstream file(std::filesystem::path(s.file).parent_path() / word_at(rest, 0));
                const std::string section = "== " + word_at(rest, 1);
                bool inside = words.size() == 1, found = inside && file;
                for (std::string golden; std::getline(file, golden);) {
                    if (golden.starts_with("== "))
                        found |= inside = golden == section;
                    else if (inside && !golden.starts_with("#"))
                        expect(line, golden, expected, checks);
                }
                if (!found)
                    fail(line, "no events " + rest);
            } else if (first == "state" || first == "timer" || first == "idle" || first == "same") {
                checks->emplace_back(line, e);
            } else if (EVENTS.count(first) != 0) {
                expected->push_back(e);
            } else if (!e.empty()) {
                fail(line, "unknown expectation: " + e);
            }
        }
    }

    void run() {
        if (s.name.empty()) {
            for (const auto &[line, text] : s.lines) {
                if (!trimmed(text).empty() && !text.starts_with("#"))
                    fail(line, "outside a scenario: " + text);
            }
        }
        for (size_t i = 0; i < s.lines.size() && !failed;) {
            const auto &[line, text] = s.lines[i++];
            if (text.starts_with("logs ")) {
                log = std::make_unique<log_capture>(std::atoi(text.c_str() + 5));
            } else if (text.starts_with("|")) {
                std::string clause = text.substr(text.starts_with("| ") ? 2 : 1);
                clause = replaced(replaced(clause, "ROOT", t.root.path()), " ;; ", "\n");
                config += replaced(clause, " ; ", "\n\t") + "\n";
            } else if (!text.empty() && text[0] != '#') {
                bool loose = text.ends_with(" ...");
                for (const std::string &one :
                     split(text.substr(0, text.size() - (loose ? 4 : 0)), ';'))
                    step(line, one);
                strings expected, produced;
                numbered checks;
                for (; i < s.lines.size() && std::string("\t #").find(s.lines[i].second[0]) < 3;
                     i++) {
                    if (!trimmed(s.lines[i].second).starts_with("#"))
                        expect(s.lines[i].first, s.lines[i].second, &expected, &checks);
                }
                store_events(&produced);
                for (; log_seen < log->records.size(); log_seen++) {
                    const log_record &r = log->records[log_seen];
                    produced.push_back(
                        trimmed(replaced("log " + std::to_string(r.priority) + " " + r.message,
                                         t.root.path(), "ROOT")));
                }
                produced.insert(produced.end(), proc.begin(), proc.end());
                proc.clear();
                match(line, loose, expected, produced);
                for (size_t k = 0; k < checks.size() && !failed; k++)
                    check(checks[k].first, checks[k].second);
            }
        }
    }
};

// Every scenario of every *.scn file under the test directory.
std::vector<scenario> scenarios() {
    strings files;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(TOVRIN_TEST_DIR)) {
        if (entry.path().extension() == ".scn")
            files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    std::vector<scenario> out;
    for (const std::string &file : files) {
        std::ifstream in(file);
        std::string text;
        for (int line = 1; std::getline(in, text); line++) {
            if (text.starts_with("scenario ")) {
                std::string name =
                    std::filesystem::path(file).stem().string() + "_" + text.substr(9);
                std::replace_if(
                    name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); },
                    '_');
                out.push_back(scenario{file, text.substr(9), name, {}});
            } else if (!out.empty() && out.back().file == file) {
                out.back().lines.emplace_back(line, text);
            } else if (!trimmed(text).empty() && !text.starts_with("#")) {
                std::string name = std::filesystem::path(file).stem().string() + "_outside";
                out.push_back(scenario{file, "", name, {{line, text}}});
            }
        }
    }
    return out;
}

void PrintTo(const scenario &s, std::ostream *out) {
    *out << s.file << ": " << s.name;
}

class Scenario : public ::testing::TestWithParam<scenario> {};

TEST_P(Scenario, Runs) {
    runner(GetParam()).run();
}

INSTANTIATE_TEST_SUITE_P(Files, Scenario, ::testing::ValuesIn(scenarios()),
                         [](const auto &p) { return p.param.test_name; });

}  // namespace
