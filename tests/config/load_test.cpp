#include "config/load.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

#include "config/fixup.h"
#include "supervise/conn.h"
#include "support/log_capture.h"
#include "support/test_inst.h"

namespace {

const char failed[] = "Failed To Load Config";

std::vector<std::string> conn_names(tovrin_conn_list &list) {
    std::vector<std::string> names;
    for (tovrin_conn &conn : list)
        names.push_back(conn.name);
    return names;
}

std::vector<std::string> commands(const tovrin_action_list &actions) {
    std::vector<std::string> out;
    for (const auto &action : actions)
        out.push_back(action->command);
    return out;
}

class ConfigLoad : public ::testing::Test {
  protected:
    // Loads text and expects the load to fail with message then the
    // generic failure, nothing pending and the configuration in force kept.
    void expect_refused(const std::string &text, const std::string &message) {
        t.write_config(text);
        log_capture log;
        EXPECT_EQ(t.load(), -1) << text;
        const std::vector<log_record> expected = {{TOVRIN_LOG_FATAL, message},
                                                  {TOVRIN_LOG_FATAL, failed}};
        EXPECT_EQ(log.records(), expected) << text;
        EXPECT_TRUE(t.inst.new_conns.empty());
        EXPECT_EQ(t.inst.new_globals, nullptr);
    }

    test_inst t;
};

TEST_F(ConfigLoad, SyntaxAndArgumentErrorsAreReportedExactly) {
    struct error_case {
        const char *text;
        const char *message;
    };
    const error_case cases[] = {
        {"\tstart /bin/true\n", "New connection definitions must start without whitespace"},
        {"# comment\n  conn a\n", "New connection definitions must start without whitespace"},
        {"conn a\nglobal\n", "Global definitions must be first in the file"},
        {"conn\n", "Connection defined without a name"},
        {"anygroup\n", "Anygroup defined without a name"},
        {"orderedgroup  \t\n", "Orderedgroup defined without a name"},
        {"bogus x\n", "Unknown clause: bogus"},
        {"Conn a\n", "Unknown clause: Conn"},
        {"global\n\tnope 1\n", "Unknown clause: nope in global definition"},
        {"global\n\tbootdelay\n", "Bootdelay specified without a value"},
        {"global\n\tkeepalive\n", "Keepalive specified without a value"},
        {"global\n\tconfigreloadtimeout\n", "Config reload timeout specified without a value"},
        {"global\n\tinstancelog\n", "Instance log specified without an argument"},
        {"global\n\tdefaultlog\n", "Default log specified without an argument"},
        {"global\n\tinstancelog Debug\n", "Unknown log mask Debug for instance logging"},
        {"global\n\tdefaultlog +bogus\n", "Unknown log mask +bogus for default conn logging"},
        {"conn a\n\tfrob\n", "Unknown clause: frob in connection a"},
        {"conn a\n\tStart x\n", "Unknown clause: Start in connection a"},
        {"conn a\n\tmember b\n", "Connection a is not a group and cannot have members"},
        {"conn a\n\tmember\n", "Connection a is not a group and cannot have members"},
        {"conn a\n\tmutex\n", "Connection a is not a group and cannot have a mutex property"},
        {"conn a\n\tfailovertimeout 5\n",
         "Connection a is not a group and cannot have a failover timeout"},
        {"conn a\n\tfailforwardperiod\n",
         "Connection a is not a group and cannot have a failforward period"},
        {"orderedgroup g\n\tmember\n", "Member specified without a name in group g"},
        {"anygroup g\n\tfailovertimeout\n",
         "Failover timeout specified without a value in connection g"},
        {"orderedgroup g\n\tfailforwardperiod\n",
         "Failforward period specified without a value in connection g"},
        {"conn a\n\tparent\n", "Parent specified without a name in connection a"},
        {"conn a\n\tchild\n", "Child specified without a name in connection a"},
        {"conn a\n\tlog\n", "Log specified without an argument in connection a"},
        {"conn a\n\tlog Debug\n", "Unknown log mask Debug for a"},
        {"conn a\n\ttestdelay\n", "Test delay specified without a name in connection a"},
        {"conn a\n\ttestperiod\n", "Test period specified without a name in connection a"},
        {"conn a\n\ttesttimeout\n", "Test timeout specified without a name in connection a"},
        {"conn a\n\ttestthreshold\n", "Test threshold specified without a name in connection a"},
        {"conn a\n\tcommandtimeout\n", "Command timeout specified without a name in connection a"},
        {"conn a\n\tmaxrestarts\n",
         "Max restarts specified without a variable value in connection a"},
        {"conn a\n\trestartdelayfactor\n",
         "Restart delay factor specified without a variable value in connection a"},
        {"conn a\n\tvar\n", "Command var specified without a variable name in connection a"},
        {"conn a\n\tvar x\n", "Command var specified without a variable value in connection a"},
        {"conn a\n\tstord_var\n",
         "Command stord_var specified without a variable name in connection a"},
        {"conn a\n\tstord_var x\n",
         "Command stord_var specified without a variable value in connection a"},
        // The error may come after many good lines; the last one decides.
        {"conn a\n\tstart /bin/a\nconn b\n\tparent a\nconn c\n\tlog -Debug\n",
         "Unknown log mask -Debug for c"},
    };
    for (const error_case &c : cases)
        expect_refused(c.text, c.message);
}

TEST_F(ConfigLoad, FailedLoadLeavesTheConfigurationInForceUntouched) {
    t.write_config("global\n\tkeepalive 7\nconn a\nconn b\n");
    ASSERT_EQ(t.load(), 0);
    tovrin_conn *a = t.conn("a");
    tovrin_globals *globals = t.inst.globals.get();

    expect_refused("global\n\tkeepalive 9\nconn x\nconn y\n\tbogus\n",
                   "Unknown clause: bogus in connection y");
    EXPECT_EQ(t.conn("a"), a);
    EXPECT_EQ(conn_names(t.inst.conns), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(t.inst.globals.get(), globals);
    EXPECT_EQ(t.inst.globals->keepalive, 7);
}

TEST_F(ConfigLoad, MissingFileIsReportedWithItsPath) {
    log_capture log;
    EXPECT_EQ(t.load(), -1);
    const std::vector<log_record> expected = {
        {TOVRIN_LOG_FATAL, "Config path " + t.paths.config_file + " doesn't exist..."}};
    EXPECT_EQ(log.records(), expected);
}

TEST_F(ConfigLoad, EmptyAndCommentOnlyFilesGiveDefaults) {
    for (const char *text : {"", "\n\n", "# nothing\n   # indented comment\n\t\n"}) {
        t.write_config(text);
        log_capture log;
        ASSERT_EQ(t.load(), 0) << text;
        EXPECT_TRUE(log.records().empty());
        EXPECT_TRUE(t.inst.conns.empty());
        ASSERT_NE(t.inst.globals, nullptr);
        EXPECT_EQ(t.inst.globals->keepalive, 30);
        EXPECT_EQ(t.inst.globals->bootdelay, 0);
        EXPECT_EQ(t.inst.globals->configreloadtimeout, 600);
        EXPECT_EQ(t.inst.globals->default_log_mask, 0x35cau);
        EXPECT_EQ(t.inst.globals->instance_log_mask, 0x10u);
        EXPECT_EQ(t.inst.new_globals, nullptr);
    }
}

TEST_F(ConfigLoad, GlobalBlocksApplyInOrder) {
    t.write_config(
        "global\n\tkeepalive 5\n\tinstancelog +debugmessages\n"
        "# between\n"
        "global extra words\n\tbootdelay 7\n\tconfigreloadtimeout 0\n"
        "\tdefaultlog none\n\tdefaultlog +failover\n"
        "conn a\n\tlog +debug\n"
        "conn b\n");
    ASSERT_EQ(t.load(), 0);
    EXPECT_EQ(t.inst.globals->keepalive, 5);
    EXPECT_EQ(t.inst.globals->bootdelay, 7);
    EXPECT_EQ(t.inst.globals->configreloadtimeout, 0);
    EXPECT_EQ(t.inst.globals->instance_log_mask, 0x18u);
    EXPECT_EQ(t.inst.globals->default_log_mask, 0x80u);
    // defaultlog gives conns their starting mask; log clauses modify it.
    EXPECT_EQ(t.conn("a")->log_mask, 0x880u);
    EXPECT_EQ(t.conn("b")->log_mask, 0x80u);
}

TEST_F(ConfigLoad, DefinitionClausesAndDefaults) {
    t.write_config(
        "conn plain two words\n"
        "\ttestdelay 1\n"
        "\t# a comment does not end the definition\n"
        "\n"
        "\ttestperiod 2\n\ttesttimeout 3\n\ttestthreshold 4\n\tcommandtimeout 5\n"
        "\tmaxrestarts 6\n\trestartdelayfactor 7\n\tlog none\n\tlog +uptransitions\n"
        "orderedgroup og\n\tmutex\n\tfailovertimeout 11\n\tfailforwardperiod 12\n"
        "\tmember m2\n\tmember m1\n\tmember m2\n"
        "anygroup ag\n"
        "conn defaults\n");
    ASSERT_EQ(t.load(), 0);

    tovrin_conn *plain = t.conn("plain");
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(plain->type, TOVRIN_CONN);
    EXPECT_EQ(plain->testdelay, 1);
    EXPECT_EQ(plain->testperiod, 2);
    EXPECT_EQ(plain->testtimeout, 3);
    EXPECT_EQ(plain->testthreshold, 4);
    EXPECT_EQ(plain->commandtimeout, 5);
    EXPECT_EQ(plain->maxrestarts, 6);
    EXPECT_EQ(plain->restartdelayfactor, 7);
    EXPECT_EQ(plain->log_mask, 0x2u);
    EXPECT_EQ(t.conn("two"), nullptr);

    tovrin_conn *og = t.conn("og");
    EXPECT_EQ(og->type, TOVRIN_ORDEREDGROUP);
    EXPECT_EQ(og->mutex, 1);
    EXPECT_EQ(og->failovertimeout, 11);
    EXPECT_EQ(og->failforwardperiod, 12);
    std::vector<std::string> members;
    for (const tovrin_link &m : og->members)
        members.push_back(m.name);
    EXPECT_EQ(members, (std::vector<std::string>{"m2", "m1"}));

    tovrin_conn *ag = t.conn("ag");
    EXPECT_EQ(ag->type, TOVRIN_ANYGROUP);
    EXPECT_EQ(ag->failovertimeout, 300);
    EXPECT_EQ(ag->failforwardperiod, 600);
    EXPECT_EQ(ag->mutex, 0);

    tovrin_conn *d = t.conn("defaults");
    EXPECT_EQ(d->testdelay, 30);
    EXPECT_EQ(d->testperiod, 30);
    EXPECT_EQ(d->testtimeout, 30);
    EXPECT_EQ(d->testthreshold, 1);
    EXPECT_EQ(d->commandtimeout, 60);
    EXPECT_EQ(d->maxrestarts, -1);
    EXPECT_EQ(d->restartdelayfactor, 0);
    EXPECT_EQ(d->failovertimeout, 0);
    EXPECT_EQ(d->failforwardperiod, 0);
    EXPECT_EQ(d->log_mask, 0x35cau);
}

TEST_F(ConfigLoad, NumbersConvertLikeTheLanguageSays) {
    struct number_case {
        const char *text;
        int value;
    };
    const number_case cases[] = {
        {"10", 10},
        {"10s", 10},
        {"abc", 0},
        {"-3", -3},
        {"+5", 5},
        {"007", 7},
        {"99999999999", INT_MAX},
        {"-99999999999", INT_MIN},
        {"2147483647", INT_MAX},
        {"2147483648", INT_MAX},
        {"-2147483648", INT_MIN},
        {"1e3", 1},
    };
    for (const number_case &c : cases) {
        t.write_config(std::string("conn a\n\ttestperiod ") + c.text + "\n");
        ASSERT_EQ(t.load(), 0) << c.text;
        EXPECT_EQ(t.conn("a")->testperiod, c.value) << c.text;
        t.inst.conns.clear();
    }
}

TEST_F(ConfigLoad, CommandsKeepTheRestOfTheLineByteForByte) {
    t.write_config(
        "conn a\n"
        "\tstart  /bin/foo a b\n"
        "    stop /bin/stop \"x y\"   \n"
        "\ttest /bin/t1\n"
        "\ttest\t/bin/t2 # not a comment\n"
        "\tup sleep 100\n"
        "\tstart\n"
        "\tstart /bin/last");
    ASSERT_EQ(t.load(), 0);
    tovrin_conn *a = t.conn("a");
    EXPECT_EQ(commands(a->start_actions),
              (std::vector<std::string>{" /bin/foo a b\n", "", "/bin/last"}));
    EXPECT_EQ(commands(a->stop_actions), (std::vector<std::string>{"/bin/stop \"x y\"   \n"}));
    EXPECT_EQ(commands(a->test_actions),
              (std::vector<std::string>{"/bin/t1\n", "/bin/t2 # not a comment\n"}));
    EXPECT_EQ(commands(a->up_actions), (std::vector<std::string>{"sleep 100\n"}));
    for (const auto &action : a->test_actions)
        EXPECT_EQ(action->type, TOVRIN_ACTION_TEST);
    EXPECT_EQ(a->up_actions[0]->type, TOVRIN_ACTION_UP);
}

TEST_F(ConfigLoad, DuplicateNamesAreSkippedAndTheLoadGoesOn) {
    t.write_config(
        "conn a\n\ttestperiod 5\n"
        "anygroup a\n\ttestperiod 7\n\tbogus clause ignored too\n"
        "conn b\n");
    log_capture log;
    ASSERT_EQ(t.load(), 0);
    const std::vector<log_record> expected = {
        {TOVRIN_LOG_ERROR, "Duplicate name used in tovrin config: a"}};
    EXPECT_EQ(log.records(), expected);
    EXPECT_EQ(t.conn("a")->type, TOVRIN_CONN);
    EXPECT_EQ(t.conn("a")->testperiod, 5);
    EXPECT_EQ(conn_names(t.inst.conns), (std::vector<std::string>{"a", "b"}));
}

TEST_F(ConfigLoad, LongLinesAreReadInPieces) {
    // The first 1023 bytes make one clause; the rest is a line of its own,
    // here an indented one, so it is a clause with keyword "b".
    std::string command(1017, 'a');
    t.write_config("conn a\n\ttest " + command + " b\n");
    log_capture log;
    EXPECT_EQ(t.load(), -1);
    const std::vector<log_record> expected = {
        {TOVRIN_LOG_FATAL, "Unknown clause: b in connection a"}, {TOVRIN_LOG_FATAL, failed}};
    EXPECT_EQ(log.records(), expected);

    // Exactly 1023 bytes with the newline: one piece.
    t.write_config("conn a\n\ttest " + std::string(1016, 'a') + "\n");
    ASSERT_EQ(t.load(), 0);
    EXPECT_EQ(t.conn("a")->test_actions[0]->command, std::string(1016, 'a') + "\n");
}

TEST_F(ConfigLoad, ArbitraryBytesNeverCrashOrLeak) {
    std::mt19937 random(12345);
    const std::string alphabet = std::string("conn\tglobal start member parent child #\n ") +
                                 std::string("\0\x01\xff\x1e\r", 5) + "orderedgroup anygroup";
    for (int round = 0; round < 200; round++) {
        std::string text;
        size_t size = random() % 3000;
        for (size_t i = 0; i < size; i++) {
            if (random() % 4 == 0)
                text += static_cast<char>(random() % 256);
            else
                text += alphabet[random() % alphabet.size()];
        }
        t.write_config(text);
        int result = t.load();
        EXPECT_TRUE(result == 0 || result == -1);
        EXPECT_TRUE(t.inst.new_conns.empty());
        t.inst.conns.clear();
    }
}

TEST_F(ConfigLoad, TenThousandDefinitionsLoad) {
    std::string text = "conn c0\n";
    for (int i = 1; i < 10000; i++)
        text += "conn c" + std::to_string(i) + "\n\tparent c" + std::to_string(i - 1) +
                "\n\tstart /bin/true\n";
    t.write_config(text);
    ASSERT_EQ(t.load(), 0);
    EXPECT_EQ(t.inst.conns.size(), 10000u);
    EXPECT_EQ(t.conn("c0")->children.front().name, "c1");
    EXPECT_EQ(t.conn("c9999")->parents.front().name, "c9998");
}

}  // namespace
