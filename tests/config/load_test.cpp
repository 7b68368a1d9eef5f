#include "support/test_inst.h"

struct load_case {
    std::string text;
    strings messages;     // a refused load adds "Failed To Load Config"
    int testperiod = 30;  // of conn a, when it loads
};

const std::string long_line(1017, 'a');

// A clause of conn a refused "in connection a".
static load_case in_a(const std::string &clause, const std::string &message) {
    return {"conn a\n\t" + clause + "\n", {message + " in connection a"}};
}

// Every refusal of the parser, and what it lets through, numbers read as the
// language says. A refused load says so last, and nothing of the file is
// left pending either way.
TEST(ConfigLoad, ReportsEveryErrorExactly) {
    const load_case refused[] = {
        {"\tstart /bin/true\n", {"New connection definitions must start without whitespace"}},
        {"# comment\n  conn a\n", {"New connection definitions must start without whitespace"}},
        {"conn a\nglobal\n", {"Global definitions must be first in the file"}},
        {"conn\n", {"Connection defined without a name"}},
        {"anygroup\n", {"Anygroup defined without a name"}},
        {"orderedgroup  \t\n", {"Orderedgroup defined without a name"}},
        {"Conn a\n", {"Unknown clause: Conn"}},
        {"global\n\tnope 1\n", {"Unknown clause: nope in global definition"}},
        {"global\n\tbootdelay\n", {"Bootdelay specified without a value"}},
        {"global\n\tkeepalive\n", {"Keepalive specified without a value"}},
        {"global\n\tconfigreloadtimeout\n", {"Config reload timeout specified without a value"}},
        {"global\n\tinstancelog\n", {"Instance log specified without an argument"}},
        {"global\n\tdefaultlog\n", {"Default log specified without an argument"}},
        {"global\n\tinstancelog Debug\n", {"Unknown log mask Debug for instance logging"}},
        {"global\n\tdefaultlog +bogus\n", {"Unknown log mask +bogus for default conn logging"}},
        in_a("Start x", "Unknown clause: Start"),
        {"conn a\n\tmember\n", {"Connection a is not a group and cannot have members"}},
        {"conn a\n\tmutex\n", {"Connection a is not a group and cannot have a mutex property"}},
        {"conn a\n\tfailovertimeout 5\n",
         {"Connection a is not a group and cannot have a failover timeout"}},
        {"conn a\n\tfailforwardperiod\n",
         {"Connection a is not a group and cannot have a failforward period"}},
        {"orderedgroup g\n\tmember\n", {"Member specified without a name in group g"}},
        {"anygroup g\n\tfailovertimeout\n",
         {"Failover timeout specified without a value in connection g"}},
        {"orderedgroup g\n\tfailforwardperiod\n",
         {"Failforward period specified without a value in connection g"}},
        in_a("parent", "Parent specified without a name"),
        in_a("child", "Child specified without a name"),
        in_a("log", "Log specified without an argument"),
        in_a("testdelay", "Test delay specified without a name"),
        in_a("testperiod", "Test period specified without a name"),
        in_a("testtimeout", "Test timeout specified without a name"),
        in_a("testthreshold", "Test threshold specified without a name"),
        in_a("commandtimeout", "Command timeout specified without a name"),
        in_a("maxrestarts", "Max restarts specified without a variable value"),
        in_a("restartdelayfactor", "Restart delay factor specified without a variable value"),
        in_a("var", "Command var specified without a variable name"),
        in_a("var x", "Command var specified without a variable value"),
        in_a("stord_var", "Command stord_var specified without a variable name"),
        in_a("stord_var x", "Command stord_var specified without a variable value"),
        {"conn a\n\tstart /bin/a\nconn b\n\tparent a\nconn c\n\tlog -Debug\n",
         {"Unknown log mask -Debug for c"}},
        // A line longer than 1023 bytes goes on as a line of its own.
        {"conn a\n\ttest " + long_line + " b\n", {"Unknown clause: b in connection a"}},
    };
    const load_case accepted[] = {
        // A taken name skips its definition, clauses and all.
        {"conn a\nanygroup a\n\tbogus\nconn b\n", {"Duplicate name used in tovrin config: a"}},
        {"", {}},
        {"# nothing\n   # indented comment\n\t\n\nconn a\n\t# c\n", {}},
        {"conn a\n\ttest " + std::string(1016, 'a') + "\n", {}},
        // clang-format off
        {"conn a\n\ttestperiod 10\n", {}, 10}, {"conn a\n\ttestperiod 10s\n", {}, 10},
        {"conn a\n\ttestperiod abc\n", {}, 0}, {"conn a\n\ttestperiod -3\n", {}, -3},
        {"conn a\n\ttestperiod +5\n", {}, 5}, {"conn a\n\ttestperiod 1e3\n", {}, 1},
        {"conn a\n\ttestperiod 2147483647\n", {}, INT_MAX},
        {"conn a\n\ttestperiod 2147483648\n", {}, INT_MAX},
        {"conn a\n\ttestperiod -99999999999\n", {}, INT_MIN},
        // clang-format on
    };
    test_inst t;
    auto check = [&t](const load_case &c, bool refuse) {
        SCOPED_TRACE(c.text.substr(0, 60));
        t.write_config(c.text);
        log_capture log;
        EXPECT_EQ(t.load(), refuse ? -1 : 0);
        std::vector<log_record> expected;
        for (const std::string &m : c.messages)
            expected.push_back(
                {m.starts_with("Duplicate") ? TOVRIN_LOG_ERROR : TOVRIN_LOG_FATAL, m});
        if (refuse)
            expected.push_back({TOVRIN_LOG_FATAL, "Failed To Load Config"});
        EXPECT_EQ(log.records, expected);
        EXPECT_TRUE(t.inst.new_conns.empty());
        EXPECT_EQ(t.inst.new_globals, nullptr);
        EXPECT_EQ(t.conn("a") != nullptr ? t.conn("a")->testperiod : 30, c.testperiod);
        t.inst.conns.clear();
    };
    for (const load_case &c : refused)
        check(c, true);
    for (const load_case &c : accepted)
        check(c, false);
}

// A conn carries a part only for clauses it has: a plain conn without
// commands, variables or file dependencies (the bulk of a large
// configuration, held twice while a reload compares) allocates none, and a
// deaf placeholder none either. Links keep no room to grow once read.
TEST(ConfigLoad, OnlyTheClausesAConnHasMakeItsParts) {
    struct parts_case {
        const char *conn;
        bool group, commands, vars;
    };
    const parts_case cases[] = {
        {"plain", false, false, false},   {"parent", false, false, false},
        {"tested", false, true, false},   {"stopped", false, true, false},
        {"valued", false, false, true},   {"watching", false, false, true},
        {"any", true, false, false},      {"ordered", true, true, false},
        {"missing", false, false, false},
    };
    test_inst t;
    t.write_config(
        "conn plain\n\tparent parent\n\tlog none\n"
        "conn parent\n\tlog none\n"
        "conn tested\n\ttest /bin/true\n\tparent parent\n\tlog none\n"
        "conn stopped\n\tstop /bin/true\n\tparent parent\n\tlog none\n"
        "conn valued\n\tvar x 1\n\tlog none\n"
        "conn watching\n\tfile-dependency /nonexistent/file\n\tlog none\n"
        "anygroup any\n\tmember plain\n\tmember missing\n\tlog none\n"
        "orderedgroup ordered\n\tup /bin/true\n\tlog none\n" +
        [] {
            std::string members;
            for (int i = 0; i < 5; i++)
                members += "\tmember m" + std::to_string(i) + "\n";
            return members;
        }());
    ASSERT_EQ(t.load(), 0);
    for (const parts_case &c : cases) {
        const tovrin_conn *conn = t.conn(c.conn);
        ASSERT_NE(conn, nullptr) << c.conn;
        EXPECT_EQ(conn->group_part != nullptr, c.group) << c.conn;
        EXPECT_EQ(conn->command_part != nullptr, c.commands) << c.conn;
        EXPECT_EQ(conn->var_part != nullptr, c.vars) << c.conn;
    }
    EXPECT_TRUE(t.conn("missing")->is_deaf);
    EXPECT_EQ(t.conn("ordered")->group_part->members.capacity(), 5u);
    EXPECT_EQ(t.conn("parent")->children.capacity(), 3u);
}
