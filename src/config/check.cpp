#include "config/check.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "command/tokenizer.h"
#include "config/compare.h"
#include "config/fixup.h"
#include "config/graph_dump.h"
#include "config/load.h"
#include "daemon/child_env.h"
#include "daemon/log.h"
#include "daemon/paths.h"
#include "platform/unique_fd.h"
#include "supervise/action.h"
#include "supervise/conn.h"
#include "supervise/inst.h"

namespace {

// Where the daemon's messages go while it reads a file for a check.
struct check_log {
    FILE *report = nullptr;             // null: messages are dropped
    const tovrin_inst *inst = nullptr;  // the line it is reading places a message
    std::string path;
    int warnings = 0;                          // findings and messages written
    std::vector<std::string> *kept = nullptr;  // when set, messages go here instead

    void write_prefix(int line) const {
        if (line > 0)
            fprintf(report, "%s:%d: ", path.c_str(), line);
        else
            fprintf(report, "%s: ", path.c_str());
    }
};

int check_log_append(log4c_appender_t *appender, const log4c_logging_event_t *event) {
    auto *log = static_cast<check_log *>(log4c_appender_get_udata(appender));
    if (log->kept != nullptr) {
        try {
            log->kept->emplace_back(event->evt_msg);
        } catch (const std::bad_alloc &) {
        }
        return 0;
    }
    // Chatter a conn's log mask asks for is the daemon's business, not the
    // operator's before a reload.
    if (log->report == nullptr || event->evt_priority > TOVRIN_LOG_WARN)
        return 0;
    log->write_prefix(log->inst != nullptr ? log->inst->config_line : 0);
    fprintf(log->report, "%s\n", event->evt_msg);
    log->warnings++;
    return 0;
}

const log4c_appender_type_t check_log_type = {"tovrin_check", nullptr, check_log_append, nullptr};

// An instance that reads configurations and never runs: its store link is
// one end of a socket pair that nobody reads, so subscriptions queue up
// harmlessly. The descriptors are declared first so they outlive the events
// of the instance that watch them.
struct check_inst {
    unique_fd store_end;
    unique_fd peer_end;
    tovrin_paths paths;
    tovrin_inst inst;

    bool open() {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
            return false;
        store_end.reset(fds[0]);
        peer_end.reset(fds[1]);
        inst.paths = &paths;
        return tovrin_inst_init(store_end.get(), &inst) != nullptr;
    }

    // Reads path into the pending configuration and hands it over; 0, or -1
    // when the daemon would refuse it.
    int load(const std::string &path, tovrin_config_handover handover) {
        paths.config_file = path;
        return tovrin_config_load(&inst, handover);
    }
};

// The pending configuration stays pending, to be compared with the one in
// force.
void keep_pending(tovrin_inst *) {}

bool is_group(const tovrin_conn &conn) {
    return conn.type == TOVRIN_ANYGROUP || conn.type == TOVRIN_ORDEREDGROUP;
}

const char *kind_word(const tovrin_conn &conn) {
    return is_group(conn) ? "group" : "conn";
}

// Writes the checker's own findings about a loaded configuration.
class finder {
  public:
    finder(check_log &log, tovrin_inst *inst) : log_(log), inst_(inst) {}

    void undefined_names();
    void shared_members();
    void empty_groups();
    // What each command's tokens say: references nothing answers, and a
    // program that cannot be found.
    void commands();
    void unreadable_files();
    void parent_cycles();

  private:
    void say(const tovrin_conn *where, const char *format, ...)
        __attribute__((format(printf, 3, 4)));
    void say_at(int line, const char *format, ...) __attribute__((format(printf, 3, 4)));
    void say_args(int line, const char *format, va_list args);
    void program_missing(const tovrin_conn &conn, const char *word, const tovrin_action &action,
                         const std::string &program);
    void parent_cycles_from(const tovrin_conn *start,
                            std::unordered_map<const tovrin_conn *, int> &colour);

    check_log &log_;
    tovrin_inst *inst_;
    // The PATH the daemon's children search, made from the checker's own.
    std::string child_path_ = tovrin_child_env_path(getenv("PATH"));
};

void finder::say(const tovrin_conn *where, const char *format, ...) {
    va_list args;
    va_start(args, format);
    say_args(where != nullptr ? where->config_line : 0, format, args);
    va_end(args);
}

void finder::say_at(int line, const char *format, ...) {
    va_list args;
    va_start(args, format);
    say_args(line, format, args);
    va_end(args);
}

void finder::say_args(int line, const char *format, va_list args) {
    log_.write_prefix(line);
    vfprintf(log_.report, format, args);
    fputc('\n', log_.report);
    log_.warnings++;
}

void finder::undefined_names() {
    // Only a clause of a defined conn can name a deaf one: the fix-ups add
    // the other side of each link to the deaf conn, not the reverse.
    for (const tovrin_conn &conn : inst_->conns) {
        if (conn.is_deaf)
            continue;
        struct link_kind {
            const char *word;
            const tovrin_link_list *links;  // null: a plain conn's members
        };
        const link_kind kinds[] = {
            {"parent", &conn.parents},
            {"child", &conn.children},
            {"member", conn.group_part != nullptr ? &conn.group_part->members : nullptr},
        };
        for (const link_kind &kind : kinds) {
            if (kind.links == nullptr)
                continue;
            for (const tovrin_link &link : *kind.links) {
                const tovrin_conn *target = inst_->conns.find(link.name);
                if (target != nullptr && target->is_deaf)
                    say(&conn, "%s %s: %s %s is defined nowhere; it will be a deaf conn",
                        kind_word(conn), conn.name.c_str(), kind.word, link.name.c_str());
            }
        }
    }
}

void finder::shared_members() {
    for (const tovrin_conn &group : inst_->conns) {
        if (!is_group(group))
            continue;
        for (const tovrin_link &member : group.group_part->members) {
            const tovrin_conn *target = inst_->conns.find(member.name);
            if (target != nullptr && target->group_name != group.name)
                say(&group, "group %s: member %s stays in group %s, which claimed it first",
                    group.name.c_str(), member.name.c_str(), target->group_name.c_str());
        }
    }
}

void finder::empty_groups() {
    for (const tovrin_conn &group : inst_->conns) {
        if (!is_group(group))
            continue;
        const tovrin_link_list &members = group.group_part->members;
        if (std::none_of(members.begin(), members.end(),
                         [](const tovrin_link &m) { return !m.name.empty(); }))
            say(&group, "group %s has no members", group.name.c_str());
    }
}

// Whether a command's first token begins with a %reference%: its program is
// only known once the reference is expanded at run time, maybe from the store.
bool program_is_variable(const std::string &command) {
    size_t at = command.find_first_not_of(" \t");
    if (at != std::string::npos && (command[at] == '"' || command[at] == '\''))
        at++;
    return at < command.size() && command[at] == '%';
}

// Whether path names a regular file this process may execute.
bool program_runs(const std::string &path, int *error) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || access(path.c_str(), X_OK) != 0) {
        *error = errno;
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        *error = EACCES;
        return false;
    }
    return true;
}

// Searches for program as the daemon's spawning does: a name with a slash
// is taken as it is, any other is looked for in each directory of path (an
// empty entry being the current directory).
bool program_found(const std::string &program, const std::string &path, int *error) {
    if (program.find('/') != std::string::npos)
        return program_runs(program, error);
    for (size_t start = 0;;) {
        size_t end = path.find(':', start);
        std::string dir = path.substr(start, end == std::string::npos ? end : end - start);
        if (program_runs((dir.empty() ? "." : dir) + "/" + program, error))
            return true;
        if (end == std::string::npos)
            return false;
        start = end + 1;
    }
}

void finder::program_missing(const tovrin_conn &conn, const char *word, const tovrin_action &action,
                             const std::string &program) {
    if (program_is_variable(action.command))
        return;
    int error = 0;
    if (program_found(program, child_path_, &error))
        return;
    if (program.find('/') == std::string::npos)
        say_at(action.config_line, "%s %s: %s program %s is not found on PATH", kind_word(conn),
               conn.name.c_str(), word, program.c_str());
    else
        say_at(action.config_line, "%s %s: %s program %s cannot be run: %s", kind_word(conn),
               conn.name.c_str(), word, program.c_str(), strerror(error));
}

void finder::commands() {
    struct action_kind {
        const char *word;
        int type;
    };
    static const action_kind kinds[] = {
        {"start", TOVRIN_ACTION_START},
        {"stop", TOVRIN_ACTION_STOP},
        {"test", TOVRIN_ACTION_TEST},
        {"up", TOVRIN_ACTION_UP},
    };
    for (tovrin_conn &conn : inst_->conns) {
        for (const action_kind &kind : kinds) {
            const tovrin_action_list *actions = tovrin_conn_actions(&conn, kind.type);
            if (actions == nullptr)
                continue;
            for (const auto &action : *actions) {
                // What the tokenizer says about a command belongs to its line.
                inst_->config_line = action->config_line;
                std::vector<std::string> unresolved;
                std::unique_ptr<parsed_argv> args =
                    str2argv(&conn, action->command.c_str(), &unresolved);
                inst_->config_line = 0;
                for (size_t i = 0; i < unresolved.size(); i++) {
                    const std::string &name = unresolved[i];
                    if (std::find(unresolved.begin(), unresolved.begin() + i, name) !=
                        unresolved.begin() + i)
                        continue;
                    say_at(action->config_line,
                           "%s %s: %s command refers to %%%s%%, which no conn on its search "
                           "path defines",
                           kind_word(conn), conn.name.c_str(), kind.word, name.c_str());
                }
                if (args != nullptr && args->argc > 0)
                    program_missing(conn, kind.word, *action, args->argv[0]);
            }
        }
    }
}

void finder::unreadable_files() {
    for (const tovrin_conn &conn : inst_->conns) {
        if (conn.var_part == nullptr)
            continue;
        for (const tovrin_file_dep &dep : conn.var_part->file_deps) {
            unique_fd fd(::open(dep.path.c_str(), O_RDONLY | O_CLOEXEC));
            struct stat st;
            const char *why = nullptr;
            if (!fd)
                why = strerror(errno);
            else if (fstat(fd.get(), &st) == 0 && S_ISDIR(st.st_mode))
                why = "it is a directory";
            if (why != nullptr)
                say(&conn, "%s %s: file-dependency %s cannot be read: %s", kind_word(conn),
                    conn.name.c_str(), dep.path.c_str(), why);
        }
    }
}

// Depth first along parents, without recursion: ten thousand conns in one
// chain must not exhaust the stack. Each cycle is reported where the walk
// first closes it.
void finder::parent_cycles_from(const tovrin_conn *start,
                                std::unordered_map<const tovrin_conn *, int> &colour) {
    enum { unseen = 0, on_path = 1, done = 2 };
    struct frame {
        const tovrin_conn *conn;
        tovrin_link_list::const_iterator next;
    };
    std::vector<frame> path{{start, start->parents.begin()}};
    colour[start] = on_path;
    while (!path.empty()) {
        frame &top = path.back();
        if (top.next == top.conn->parents.end()) {
            colour[top.conn] = done;
            path.pop_back();
            continue;
        }
        const tovrin_conn *parent = inst_->conns.find((top.next++)->name);
        if (parent == nullptr)
            continue;
        int &seen = colour[parent];
        if (seen == unseen) {
            seen = on_path;
            path.push_back({parent, parent->parents.begin()});
        } else if (seen == on_path) {
            auto first = std::find_if(path.begin(), path.end(),
                                      [parent](const frame &f) { return f.conn == parent; });
            std::string cycle;
            for (auto f = first; f != path.end(); ++f)
                cycle += f->conn->name + " -> ";
            cycle += parent->name;
            say(parent, "parent cycle: %s", cycle.c_str());
        }
    }
}

void finder::parent_cycles() {
    std::unordered_map<const tovrin_conn *, int> colour;
    for (const tovrin_conn &conn : inst_->conns) {
        if (colour[&conn] == 0)
            parent_cycles_from(&conn, colour);
    }
}

// Writes, conn by conn, what a reload from the configuration in force to
// the pending one would do, with the first difference the comparison names.
void plan_write(tovrin_inst *inst, check_log &log, tovrin_log_setup &setup, FILE *out) {
    for (const tovrin_conn &old : inst->conns) {
        const tovrin_conn *namesake = inst->new_conns.find(old.name);
        if (namesake == nullptr) {
            fprintf(out, "remove %s\n", old.name.c_str());
            continue;
        }
        std::vector<std::string> reasons;
        log.kept = &reasons;
        setup.set_priority(TOVRIN_LOG_DEBUG);
        int same = tovrin_conn_compare(&old, namesake);
        setup.set_priority(TOVRIN_LOG_INFO);
        log.kept = nullptr;
        if (same != 0)
            fprintf(out, "keep %s\n", old.name.c_str());
        else if (reasons.empty())
            fprintf(out, "restart %s\n", old.name.c_str());
        else
            fprintf(out, "restart %s: %s\n", old.name.c_str(), reasons.front().c_str());
    }
    for (const tovrin_conn &conn : inst->new_conns) {
        if (inst->conns.find(conn.name) == nullptr)
            fprintf(out, "add %s\n", conn.name.c_str());
    }
}

int check_file(const tovrin_check_request &request, check_log &log, FILE *out) {
    check_inst c;
    log.path = request.path;
    if (!c.open()) {
        log.write_prefix(0);
        fprintf(log.report, "cannot set up a check: %s\n", strerror(errno));
        return TOVRIN_CHECK_REFUSED;
    }
    log.inst = &c.inst;
    if (c.load(request.path, tovrin_config_move) != 0)
        return TOVRIN_CHECK_REFUSED;

    finder find(log, &c.inst);
    find.undefined_names();
    find.shared_members();
    find.empty_groups();
    find.commands();
    find.unreadable_files();
    find.parent_cycles();
    if (request.dot)
        tovrin_graph_write(&c.inst, out);
    return log.warnings > 0 ? TOVRIN_CHECK_WARNINGS : TOVRIN_CHECK_CLEAN;
}

int check_plan(const tovrin_check_request &request, check_log &log, tovrin_log_setup &setup,
               FILE *out) {
    check_inst c;
    if (!c.open())
        return TOVRIN_CHECK_REFUSED;
    log.inst = &c.inst;
    // The first file has had its say already.
    FILE *report = log.report;
    log.report = nullptr;
    int loaded = c.load(request.path, tovrin_config_move);
    log.report = report;
    if (loaded != 0)
        return TOVRIN_CHECK_REFUSED;
    log.path = request.against;
    int warnings = log.warnings;
    if (c.load(request.against, keep_pending) != 0)
        return TOVRIN_CHECK_REFUSED;
    plan_write(&c.inst, log, setup, out);
    return log.warnings > warnings ? TOVRIN_CHECK_WARNINGS : TOVRIN_CHECK_CLEAN;
}

}  // namespace

int tovrin_config_check(const tovrin_check_request &request, FILE *report, FILE *out) {
    check_log log;
    log.report = report;
    tovrin_log_setup setup = tovrin_log_setup::open_custom(&check_log_type, &log);
    try {
        int result = check_file(request, log, out);
        if (request.against.empty())
            return result;
        return std::max(result, check_plan(request, log, setup, out));
    } catch (const std::bad_alloc &) {
        log.inst = nullptr;
        log.write_prefix(0);
        fprintf(report, "out of memory\n");
        return TOVRIN_CHECK_REFUSED;
    }
}
