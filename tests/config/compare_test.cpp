#include "config/compare.h"

#include "support/test_inst.h"

static void keep_pending(tovrin_inst *) {}

struct compare_case {
    const char *old_text;
    const char *new_text;
    const char *conn;
    const char *said;  // null: the same; "": changed silently; else the message
};

// The old text is put in force and the new one parsed beside it; then the
// conn of that name in both is compared. The first difference is named.
// clang-format off
const compare_case cases[] = {
    {"conn A\n\tup y\n\tvar v 1\n\tstord_var s k\n", "conn A\n\tup y\n\tvar v 1\n\tstord_var s k\n", "A", nullptr},
    {"conn A\n", "anygroup A\n", "A", "conn A type changed: 0 != 1"},
    {"conn A\n", "conn A\n\ttestperiod 5\n", "A", "conn A test period changed: 30 != 5"},
    {"conn A\n", "conn A\n\ttestdelay 7\n", "A", "conn A test delay changed: 30 != 7"},
    {"conn A\n", "conn A\n\ttesttimeout 5\n", "A", ""},
    {"conn A\n", "conn A\n\ttestthreshold 5\n", "A", ""},
    {"conn A\n", "conn A\n\tcommandtimeout 5\n", "A", ""},
    {"conn A\n", "conn A\n\tmaxrestarts 3\n\trestartdelayfactor 4\n", "A", nullptr},
    {"conn A\n", "conn A\n\tlog +commanddebug\n", "A", "conn A log mask changed"},
    {"conn B\n\tparent A\n", "conn B\n\tparent A\nconn A\n", "A", "conn A is_deaf changed"},
    {"conn A\n", "conn A\n\tvar x 1\n", "A", "conn A var mismatch"},
    {"conn A\n\tvar x 1\n", "conn A\n", "A", "conn A var mismatch"},
    {"conn A\n\tvar x 1\n", "conn A\n\tvar x 2\n", "A", "conn A var x value 1 mismatch"},
    {"conn A\n\tvar x 1\n", "conn A\n\tstord_var x 1\n", "A", "conn A var x type mismatch"},
    {"conn A\n\tstord_var x k1\n", "conn A\n\tstord_var x k2\n", "A", "conn A var x stord_prefix k1 mismatch"},
    // "a" and "f" share a list, "a" and "b" do not.
    {"conn A\n\tvar a 1\n\tvar f 2\n", "conn A\n\tvar f 2\n\tvar a 1\n", "A", "conn A var f name mismatch"},
    {"conn A\n\tvar a 1\n\tvar b 2\n", "conn A\n\tvar b 2\n\tvar a 1\n", "A", nullptr},
    {"conn A\n\tvar a 1\n", "conn A\n\tvar a 1\n\tvar f 2\n", "A", "conn A var a name mismatch"},
    {"conn A\n\tvar f 2\n\tvar a 1\n", "conn A\n\tvar a 1\n", "A", "conn A number of vars mismatch"},
    {"conn A\n", "conn A\n\tstart x\n", "A", "conn A start actions changed (actions added)"},
    {"conn A\n\tstart x\n", "conn A\n", "A", "conn A start actions changed (actions removed)"},
    {"conn A\n\tstart x\n", "conn A\n\tstart y\n", "A", "conn A start actions changed (actions differ)"},
    {"conn A\n\tstart x\n", "conn A\n\tstart x\n\tstart y\n", "A", "conn A number of start actions changed"},
    {"conn A\n", "conn A\n\tstop x\n", "A", "conn A stop actions changed (actions added)"},
    {"conn A\n\tstop x\n", "conn A\n", "A", "conn A stop actions changed (actions removed)"},
    {"conn A\n\tstop x\n", "conn A\n\tstop y\n", "A", "conn A stop actions changed (actions differ)"},
    {"conn A\n\tstop x\n", "conn A\n\tstop x\n\tstop y\n", "A", "conn A number of stop actions changed"},
    {"conn A\n", "conn A\n\ttest x\n", "A", "conn A test actions changed (actions added)"},
    {"conn A\n\ttest x\n", "conn A\n", "A", "conn A test actions changed (actions removed)"},
    {"conn A\n\ttest x\n", "conn A\n\ttest  x\n", "A", "conn A test actions changed (actions differ)"},
    {"conn A\n\ttest x\n", "conn A\n\ttest x\n\ttest x\n", "A", "conn A number of test actions changed"},
    {"conn A\n\tup x\n", "conn A\n\tup y\n", "A", ""},
    {"conn A\n", "conn A\n\tup y\n", "A", ""},
    {"conn A\nconn P\n", "conn A\n\tparent P\nconn P\n", "A", "conn A parents changed (added)"},
    {"conn A\n\tparent P\n", "conn A\n", "A", "conn A parents changed (removed)"},
    {"conn A\n\tparent P\n", "conn A\n\tparent Q\n", "A", "conn A parents changed (differ)"},
    {"conn A\n\tparent P\n", "conn A\n\tparent P\n\tparent Q\n", "A", "conn A number of parents changed"},
    {"conn A\nconn P\n", "conn A\n\tparent P\nconn P\n", "P", "conn P children changed (added)"},
    {"conn P\n\tchild A\n", "conn P\n", "P", "conn P children changed (removed)"},
    {"conn P\n\tchild A\n\tchild B\n", "conn P\n\tchild B\n\tchild A\n", "P", "conn P child A name changed"},
    {"conn P\n\tchild A\n", "conn P\n\tchild A\n\tchild B\n", "P", "conn P number of children changed"},
    {"orderedgroup g\nconn A\n", "orderedgroup g\n\tmember A\nconn A\n", "A", ""},
    {"orderedgroup g\n\tmember A\n", "orderedgroup g\n\tmember B\n", "g", ""},
    {"orderedgroup g\n", "orderedgroup g\n\tfailovertimeout 5\n", "g", ""},
    {"orderedgroup g\n", "orderedgroup g\n\tfailforwardperiod 5\n", "g", ""},
    {"orderedgroup g\n", "orderedgroup g\n\tmutex\n", "g", ""},
};
// clang-format on

TEST(Compare, EachEditIsFoundWithItsOwnMessage) {
    for (const compare_case &c : cases) {
        SCOPED_TRACE(std::string(c.old_text) + " -> " + c.new_text);
        test_inst t(c.old_text);
        t.write_config(c.new_text);
        ASSERT_EQ(tovrin_config_load(&t.inst, keep_pending), 0);
        log_capture log(TOVRIN_LOG_DEBUG);
        EXPECT_EQ(tovrin_conn_compare(t.conn(c.conn), t.inst.new_conns.find(c.conn)),
                  c.said == nullptr ? 1 : 0);
        std::vector<log_record> said;
        bool info = std::string(c.said ? c.said : "").ends_with("children changed (added)");
        if (c.said != nullptr && *c.said != '\0')
            said.push_back({info ? TOVRIN_LOG_INFO : TOVRIN_LOG_DEBUG, c.said});
        EXPECT_EQ(log.records(), said);
    }
}

// File dependencies compare by path and by the content read at parse time;
// run-time state never counts; every call says its difference again.
TEST(Compare, FileDependenciesAndRunTimeState) {
    test_inst t;
    const std::string dep = t.root.file("dep"), dep2 = t.root.file("dep2");
    t.root.write_file("dep", "one");
    t.write_config("conn A\n\tfile-dependency " + dep + "\n\tstord_var v k\nconn C\n");
    ASSERT_EQ(t.load(), 0);
    tovrin_conn *a = t.conn("A");
    a->current_state = 6;
    a->restart_after_stopping = 1;
    t.inst.store_vars.front().current_val = "now";
    const struct {
        std::string text, content, said;
    } edits[] = {
        {"conn A\n\tfile-dependency " + dep + "\n\tstord_var v k\n", "one", ""},
        {"conn A\n\tfile-dependency " + dep + "\n\tstord_var v k\n", "two", "file deps changed"},
        {"conn A\n\tstord_var v k\n", "one", "File deps removed"},
        {"conn A\n\tfile-dependency " + dep2 + "\n\tstord_var v k\n", "one", "file deps changed"},
        {"conn A\n\tfile-dependency " + dep + "\n\tfile-dependency " + dep2 + "\n\tstord_var v k\n",
         "one", "number of file deps differ"},
    };
    for (const auto &e : edits) {
        SCOPED_TRACE(e.said);
        t.root.write_file("dep", e.content);
        t.write_config(e.text);
        ASSERT_EQ(tovrin_config_load(&t.inst, keep_pending), 0);
        for (int call = 0; call < 2; call++) {
            log_capture log(TOVRIN_LOG_DEBUG);
            EXPECT_EQ(tovrin_conn_compare(a, t.inst.new_conns.find("A")), e.said.empty() ? 1 : 0);
            EXPECT_EQ(log.messages(), e.said.empty() ? strings{} : strings{e.said});
        }
    }
    t.write_config("conn B\nconn C\n\tfile-dependency " + dep + "\n");
    ASSERT_EQ(tovrin_config_load(&t.inst, keep_pending), 0);
    log_capture log(TOVRIN_LOG_DEBUG);
    EXPECT_EQ(tovrin_conn_compare(a, t.inst.new_conns.find("B")), 0);
    EXPECT_EQ(tovrin_conn_compare(t.conn("C"), t.inst.new_conns.find("C")), 0);
    EXPECT_EQ(log.messages(), (strings{"conn name changed: A != B", "File deps added"}));
}
