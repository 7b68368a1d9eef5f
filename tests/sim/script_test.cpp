// The what-if script language: what each line means, and every refusal with
// its line number.

#include "sim/script.h"

#include <gtest/gtest.h>

#include "support/test_inst.h"

namespace {

// A parsed event as one line: time, verb, and what it carries.
std::string shown(const sim_event &e) {
    const char *kinds[] = {"start", "stop", "test", "up"};
    const char *aspects[] = {"status", "duration", "hang"};
    std::string out = std::to_string(e.time) + " ";
    switch (e.what) {
        case sim_event::ANSWER:
            return out + kinds[e.kind] + " " + e.conn + " " + aspects[e.answer.aspect] + "=" +
                   std::to_string(e.answer.value) + " runs=" + std::to_string(e.answer.runs);
        case sim_event::UP_EXITS:
            return out + "up " + e.conn + " exits " + std::to_string(e.status);
        case sim_event::CMD:
            return out + "cmd [" + e.text + "]";
        case sim_event::SET:
            return out + "set " + e.key + " [" + e.text + "]";
        case sim_event::RELOAD:
            return out + "reload " + e.text;
    }
    return out;
}

TEST(SimScript, EachVerb) {
    temp_dir dir;
    dir.write_file("new.conf", "conn a\n");
    struct row {
        const char *line, *event, *words;
    } rows[] = {
        {"at 2m test wan1 passes 3", "120 test wan1 status=0 runs=3", "test wan1 passes 3"},
        {"at 1h start vpn fails 1", "3600 start vpn status=1 runs=1", "start vpn fails 1"},
        {"at 0 stop vpn passes", "0 stop vpn status=0 runs=-1", "stop vpn passes"},
        {"at 5s start vpn takes 90", "5 start vpn duration=90 runs=-1", "start vpn takes 90"},
        {"at 5 test a takes 2m 4", "5 test a duration=120 runs=4", "test a takes 2m 4"},
        {"at 5 stop a hangs", "5 stop a hang=1 runs=-1", "stop a hangs"},
        {"at 5 up a hangs 2", "5 up a hang=1 runs=2", "up a hangs 2"},
        {"at 7 up a exits", "7 up a exits 1", "up a exits"},
        {"at 7 up a exits 0", "7 up a exits 0", "up a exits 0"},
        {"at 7 up a exits 255   # comment", "7 up a exits 255", "up a exits 255   # comment"},
        {"  at 9 cmd uplinks,cli,failover", "9 cmd [uplinks,cli,failover]",
         "cmd uplinks,cli,failover"},
        {"at 9 cmd a, b # kept ", "9 cmd [a, b # kept]", "cmd a, b # kept"},
        {"at 9 set net.addr 192.0.2.1 # x", "9 set net.addr [192.0.2.1 # x]",
         "set net.addr 192.0.2.1 # x"},
        {"at 9 reload new.conf", "9 reload DIR/new.conf", "reload new.conf"},
    };
    for (const row &r : rows) {
        sim_script script;
        auto error = sim_script_parse(std::string("# a comment\n\n") + r.line, dir.path(), &script);
        ASSERT_FALSE(error) << r.line << ": " << error->message;
        ASSERT_EQ(script.events.size(), 1u) << r.line;
        EXPECT_EQ(replaced(shown(script.events[0]), dir.path(), "DIR"), r.event) << r.line;
        EXPECT_EQ(script.events[0].words, r.words) << r.line;
        EXPECT_EQ(script.events[0].line, 3) << r.line;
        EXPECT_FALSE(script.end.has_value());
    }
}

TEST(SimScript, EventsInTimeOrderAndTheEnd) {
    sim_script script;
    // Ten years is the longest time.
    ASSERT_FALSE(sim_script_parse("at 316224000 cmd z\n", "", &script));
    EXPECT_EQ(script.events[0].time, 316224000);
    ASSERT_FALSE(sim_script_parse("at 20 cmd b\nend 1h\nat 10 cmd a\nat 20 cmd c\n", "", &script));
    std::string order;
    for (const sim_event &e : script.events)
        order += e.text + std::to_string(e.line);
    EXPECT_EQ(order, "a3b1c4");
    EXPECT_EQ(script.end, 3600);
}

TEST(SimScript, ErrorsNameTheirLine) {
    struct row {
        const char *text;
        int line;
        const char *message;
    } rows[] = {
        {"at", 1, "at needs a time"},
        {"# c\nwhen 5 cmd a", 2, "expected 'at TIME EVENT' or 'end TIME', not 'when'"},
        {"at -1 cmd a", 1, "bad time '-1': whole seconds, or with s, m or h"},
        {"at 5d cmd a", 1, "bad time '5d': whole seconds, or with s, m or h"},
        {"at 99999999h cmd a", 1, "bad time '99999999h': whole seconds, or with s, m or h"},
        {"at 316224001 cmd a", 1, "bad time '316224001': whole seconds, or with s, m or h"},
        {"at 99999999999999999999 cmd a", 1,
         "bad time '99999999999999999999': whole seconds, or with s, m or h"},
        {"at 5", 1, "an event must follow the time"},
        {"at 5 launch a", 1, "unknown event 'launch'"},
        {"at 5 test a", 1, "test needs a conn and what its command does"},
        {"at 5 test a exits", 1, "test takes fails, passes, takes or hangs"},
        {"at 5 up a takes 3", 1, "up takes exits, fails, passes or hangs"},
        {"at 5 test a fails 0", 1, "bad count '0': a whole number from 1"},
        {"at 5 test a fails x", 1, "bad count 'x': a whole number from 1"},
        {"at 5 test a fails 2 3", 1, "too many words after fails"},
        {"at 5 start a takes", 1, "takes needs a duration"},
        {"at 5 start a takes soon", 1, "bad duration 'soon'"},
        {"at 5 up a exits 256", 1, "bad exit status '256': 0 to 255"},
        {"at 5 up a exits -1", 1, "bad exit status '-1': 0 to 255"},
        {"at 5 up a exits 1 2", 1, "too many words after exits"},
        {"at 5 cmd", 1, "cmd needs the command text"},
        {"at 5 set k", 1, "set needs a key and a value"},
        {"at 5 reload", 1, "reload needs one file"},
        {"at 5 reload /nonexistent/new.conf", 1, "cannot read /nonexistent/new.conf"},
        {"end 5 now", 1, "end takes only a time"},
        {"end 5\nend 6", 2, "a second end"},
        {"end 1m\nat 61 cmd a\nat 60 cmd b", 2, "this event comes after the end"},
    };
    for (const row &r : rows) {
        sim_script script;
        auto error = sim_script_parse(r.text, "", &script);
        ASSERT_TRUE(error) << r.text;
        EXPECT_EQ(error->line, r.line) << r.text;
        EXPECT_EQ(error->message, r.message) << r.text;
    }
}

}  // namespace
