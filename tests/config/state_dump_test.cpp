#include "config/state_dump.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "config/compare.h"
#include "config/load.h"
#include "supervise/action.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/message.h"
#include "supervise/message_queue.h"
#include "supervise/state.h"
#include "support/dump_checks.h"
#include "support/log_capture.h"
#include "support/test_inst.h"

namespace {

using strings = std::vector<std::string>;

const char dump_rel[] = "tmp/tovrin.conf";

// text with every occurrence of from replaced by to.
std::string replace_all(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

// The golden file name, beside this source.
std::string golden_path(const std::string &name) {
    return (std::filesystem::path(__FILE__).parent_path() / "golden" / name).string();
}

class StateDump : public ::testing::Test {
  protected:
    StateDump() { t.root.make_dirs("tmp"); }

    void load(const std::string &text) {
        t.write_config(replace_all(text, "ROOT", t.root.path()));
        ASSERT_EQ(t.load(), 0);
    }

    // Dumps over a stale, longer file and returns what follows the time
    // line, the root directory shown as ROOT.
    std::string dump() {
        t.root.write_file(dump_rel, std::string(20000, 'x') + "\n");
        tovrin_state_dump(SIGUSR1, EV_SIGNAL, &t.inst);
        std::string text = t.root.read_file(dump_rel);
        size_t time_end = text.find('\n');
        EXPECT_EQ(text.compare(0, 2, "# "), 0) << text;
        EXPECT_NE(time_end, std::string::npos);
        if (time_end == std::string::npos)
            return text;
        return replace_all(text.substr(time_end + 1), t.root.path(), "ROOT");
    }

    test_inst t;
};

// A hand-over that leaves the parsed configuration pending, as a reload
// that has to wait does.
void parse_only(tovrin_inst *) {}

// The conn's first variable named name, or null.
tovrin_var *var_named(tovrin_conn *conn, const std::string &name) {
    for (tovrin_var_list &list : conn->vars) {
        for (auto &var : list) {
            if (var->name == name)
                return var.get();
        }
    }
    return nullptr;
}

// Appends an idle entry for the command name to a queue of conn.
void add_queued(tovrin_queued_action_list &list, tovrin_conn *conn, const std::string &name) {
    auto entry = std::make_unique<tovrin_queued_action>();
    entry->conn = conn;
    entry->command_name = name;
    list.push_back(std::move(entry));
}

// A configuration, the run-time state put on it, and the golden file its
// dump must match.
struct golden_case {
    const char *golden;
    const char *config;
    void (*prepare)(test_inst &t);
};

const golden_case golden_cases[] = {
    // Defaults everywhere: the global block as start-up sets it.
    {"idle.conf", "conn wan\n\ttest /bin/true\n", nullptr},
    // Every setting that reads back, in force.
    {"settings.conf",
     "global\n\tbootdelay 5\n\tkeepalive 10\n\tconfigreloadtimeout 120\n\tdefaultlog none\n"
     "\tdefaultlog +failover\n\tdefaultlog +debug\n\tinstancelog all\n"
     "conn wan\n\tstart /sbin/ifup wan\n\tstart /bin/echo  two  blanks\n\tstop /sbin/ifdown wan\n"
     "\ttest ping -c 1 10.0.0.1\n\tup /usr/sbin/pppd nodetach\n\ttestperiod 11\n\ttestdelay 12\n"
     "\ttesttimeout 13\n\ttestthreshold 14\n\tcommandtimeout 15\n"
     "\tfile-dependency ROOT/etc/wan.conf\n\tfile-dependency ROOT/etc/absent\n"
     "\tvar iface eth0\n\tvar mtu 1500\n\tvar iface eth1\n\tlog uptransitions\n"
     "conn lan\n\tlog none\n\tlog +othertransitions\n\tlog +stopfail\n\tlog +debug\n"
     "orderedgroup uplinks\n\tmember wan\n\tmember lan\n\tfailforwardperiod 20\n"
     "\tfailovertimeout 7\n\tmutex\n\tlog all\n"
     "anygroup pool\n\tparent wan\n\tmember lan\n",
     nullptr},
    // Relations completed by the fix-ups, and the deaf conns they create.
    {"fixups.conf",
     "conn a\n\tparent b\nconn b\nconn c\n\tchild ghost\norderedgroup g\n\tmember a\n"
     "\tmember phantom\n",
     nullptr},
    // A store variable before and after the store sent its value.
    {"stord_vars.conf",
     "conn wan\n\tstord_var addr net.wan.addr\n\tstord_var gw net.wan.gw\n\tvar plain 1\n",
     [](test_inst &t) { var_named(t.conn("wan"), "gw")->sub->current_val = "10.0.0.254"; }},
    // Run-time state: counters, queued commands and the message queue,
    // which every conn lists whole.
    {"runtime.conf", "conn a\n\tparent b\nconn b\nanygroup g\n\tmember a\n\tmember b\n",
     [](test_inst &t) {
         tovrin_conn *a = t.conn("a");
         a->current_state = TOVRIN_STATE_STARTING;
         a->previous_state = TOVRIN_STATE_WAITING_TO_START;
         a->n_queued_start_actions = 2;
         a->n_queued_stop_actions = 3;
         a->n_queued_test_actions = 4;
         a->n_test_failures = 5;
         a->n_test_passes = 6;
         a->restart_after_stopping = 1;
         a->current_test_run_has_failure = 1;
         add_queued(a->queued_actions, a, "/sbin/ifup");
         add_queued(a->queued_actions, a, "ping");
         add_queued(a->queued_up_actions, a, "pppd");
         tovrin_conn *g = t.conn("g");
         g->current_state = 42;
         g->currently_failing_over = 1;
         g->active_conn_name = "a";
         g->next_active_conn_name = "b";
         tovrin_conn_deliver_message(&t.inst, nullptr, a, TOVRIN_MSG_START);
         tovrin_conn_deliver_message(&t.inst, a, t.conn("b"), TOVRIN_MSG_CHECK_STOP);
         tovrin_conn_deliver_message(&t.inst, g, a, TOVRIN_MSG_MEMBER_FAILED);
     }},
    // A reload waiting for conns to stop: the parsed file follows,
    // commented out.
    {"reload_waiting.conf", "conn old\n\ttest /bin/true\n",
     [](test_inst &t) {
         t.write_config(
             "global\n\tkeepalive 5\n\tinstancelog debugmessages\n\tinstancelog +debugstord\n"
             "conn new\n\tparent ghost\n\tstart /bin/true\n\tvar v 1\n"
             "orderedgroup g\n\tmember new\n\tmutex\n");
         ASSERT_EQ(tovrin_config_load(&t.inst, parse_only), 0);
         t.inst.reloading_config = true;
     }},
};

class StateDumpGolden : public StateDump, public ::testing::WithParamInterface<golden_case> {};

TEST_P(StateDumpGolden, MatchesGoldenFile) {
    const golden_case &c = GetParam();
    // The file-dependency cases read this; its CRC-32 is the standard check
    // value 0xCBF43926.
    t.root.write_file("etc/wan.conf", "123456789");
    load(c.config);
    if (c.prepare != nullptr)
        c.prepare(t);
    expect_golden(golden_path(c.golden), dump());
}

// The golden file's name without its extension.
std::string golden_case_name(const ::testing::TestParamInfo<golden_case> &param) {
    std::string name = param.param.golden;
    return name.substr(0, name.find('.'));
}

INSTANTIATE_TEST_SUITE_P(Cases, StateDumpGolden, ::testing::ValuesIn(golden_cases),
                         golden_case_name);

TEST_F(StateDump, LogsThePathAndStartsWithTheLocalTimeAndAnEmptyLine) {
    load("conn wan\n");
    log_capture log;
    tovrin_state_dump(SIGUSR1, EV_SIGNAL, &t.inst);
    EXPECT_EQ(log.records(),
              (std::vector<log_record>{
                  {TOVRIN_LOG_INFO, "SIGUSR1 - Dumping Config to " + t.paths.state_dump_file}}));

    std::string text = t.root.read_file(dump_rel);
    size_t end = text.find('\n');
    ASSERT_NE(end, std::string::npos);
    ASSERT_EQ(text.compare(0, 2, "# "), 0);
    EXPECT_TRUE(is_recent_asctime(text.substr(2, end - 1))) << text.substr(0, end);
    EXPECT_EQ(text.compare(end + 1, 15, "\n#global state\n"), 0) << text;
}

TEST_F(StateDump, WithoutAWaitingReloadEndsWithTheTwoNoneLines) {
    load("conn wan\n");
    std::string text = dump();
    const std::string tail = "\n\n# No new global variables\n# No new conns pending merge\n";
    ASSERT_GE(text.size(), tail.size());
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
}

TEST_F(StateDump, UnopenableFileLogsTwoFatalLinesAndWritesNothing) {
    load("conn wan\n");
    struct unopenable {
        const char *what;
        std::string path;
    };
    // Root may write anywhere, so unopenable means a directory in the way or
    // a directory that is missing.
    t.root.make_dirs("tmp/tovrin.conf");
    const unopenable cases[] = {
        {"directory in the way", t.paths.state_dump_file},
        {"missing directory", t.root.file("nowhere/tovrin.conf")},
    };
    for (const unopenable &c : cases) {
        SCOPED_TRACE(c.what);
        t.paths.state_dump_file = c.path;
        log_capture log;
        tovrin_state_dump(SIGUSR1, EV_SIGNAL, &t.inst);
        EXPECT_EQ(log.records(),
                  (std::vector<log_record>{
                      {TOVRIN_LOG_INFO, "SIGUSR1 - Dumping Config to " + c.path},
                      {TOVRIN_LOG_FATAL, "Failed to open " + c.path + " for writing"},
                      {TOVRIN_LOG_FATAL, "Failed to dump config"},
                  }));
    }
    EXPECT_FALSE(t.root.exists("nowhere"));
}

TEST_F(StateDump, RecordOfUnknownTypeLeavesOnlyItsEmptyLine) {
    load("conn a\nconn b\n");
    std::string both = dump();
    tovrin_conn *a = t.conn("a");
    a->type = 7;
    std::string without_a = dump();
    a->type = TOVRIN_CONN;

    size_t from = both.find("conn a\n");
    size_t to = both.find("conn b\n");
    ASSERT_NE(from, std::string::npos);
    ASSERT_NE(to, std::string::npos);
    // a's section goes, the blank line that ends it stays.
    EXPECT_EQ(without_a, both.substr(0, from) + "\n" + both.substr(to));
}

// Everything configured, written out and read again as a reload would read
// it, describes the same conns and settings, and the pending copy dumps as
// the configuration in force commented out.
TEST_F(StateDump, ReadsBackAsTheSameConfiguration) {
    t.root.write_file("etc/wan.conf", "wan settings\n");
    load(
        "global\n\tbootdelay 3\n\tkeepalive 15\n\tconfigreloadtimeout 90\n\tdefaultlog none\n"
        "\tdefaultlog +startfail\n\tinstancelog debugstord\n"
        "conn wan\n\tstart /sbin/ifup wan\n\tstop /sbin/ifdown wan\n\ttest ping -c 1 10.0.0.1\n"
        "\tup /usr/sbin/pppd nodetach\n\ttestperiod 10\n\ttestdelay 2\n\ttesttimeout 4\n"
        "\ttestthreshold 3\n\tcommandtimeout 20\n\tfile-dependency ROOT/etc/wan.conf\n"
        "\tvar iface eth0\n\tvar mtu 1492\n\tstord_var addr net.wan.addr\n\tlog none\n"
        "\tlog +uptransitions\n\tlog +failover\n"
        "conn vpn\n\tparent wan\n\tstart /usr/sbin/vpn-up\n\tlog all\n"
        "orderedgroup uplinks\n\tmember wan\n\tmember backup\n\tfailforwardperiod 30\n"
        "\tfailovertimeout 5\n\tmutex\n\tlog default\n"
        "anygroup any\n\tmember vpn\n\tchild lan\n"
        "conn lan\n\tchild ghost\n\tlog debug\n");
    var_named(t.conn("wan"), "addr")->sub->current_val = "192.0.2.1";
    std::string in_force = dump();

    t.write_config(t.root.read_file(dump_rel));
    ASSERT_EQ(tovrin_config_load(&t.inst, parse_only), 0);
    strings names, read_back;
    for (tovrin_conn &conn : t.inst.conns)
        names.push_back(conn.name);
    for (tovrin_conn &conn : t.inst.new_conns)
        read_back.push_back(conn.name);
    ASSERT_EQ(read_back, names);
    for (tovrin_conn &conn : t.inst.conns) {
        SCOPED_TRACE(conn.name);
        EXPECT_EQ(tovrin_conn_compare(&conn, t.inst.new_conns.find(conn.name)), 1);
    }
    const tovrin_globals &g = *t.inst.globals, &h = *t.inst.new_globals;
    EXPECT_EQ(h.bootdelay, g.bootdelay);
    EXPECT_EQ(h.keepalive, g.keepalive);
    EXPECT_EQ(h.configreloadtimeout, g.configreloadtimeout);
    EXPECT_EQ(h.default_log_mask, g.default_log_mask);
    EXPECT_EQ(h.instance_log_mask, g.instance_log_mask);

    // The sections in force run from "global" to the empty line that ends
    // the last conn. The store's value belongs to the subscription in force.
    const std::string none_pending = "# No new global variables\n# No new conns pending merge\n";
    size_t from = in_force.find("global\n");
    ASSERT_NE(from, std::string::npos);
    ASSERT_GE(in_force.size(), from + none_pending.size() + 1);
    std::string sections = in_force.substr(from, in_force.size() - from - none_pending.size() - 1);
    sections = replace_all(sections, "current_val=192.0.2.1", "current_val=(null)");
    std::string commented;
    for (size_t at = 0; at < sections.size();) {
        size_t end = sections.find('\n', at) + 1;
        std::string line = sections.substr(at, end - at);
        commented += line == "\n" ? line : "#" + line;
        at = end;
    }
    size_t global_end = commented.find("\n\n") + 2;
    EXPECT_EQ(dump(), in_force.substr(0, in_force.size() - none_pending.size()) +
                          "# New global variables pending merge\n" +
                          commented.substr(0, global_end) + "# New conns pending merge\n" +
                          commented.substr(global_end));
}

}  // namespace
