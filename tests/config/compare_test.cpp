#include "config/compare.h"

#include "support/test_inst.h"

static void keep_pending(tovrin_inst *) {}

struct compare_case {
    const char *old_text, *new_text, *conn;
    const char *said;             // null: the same; "": changed silently; else the message
    const char *dep_now = "one";  // ROOT/dep when the new text is parsed
    const char *new_conn = nullptr;
};

// The old text is put in force and the new one parsed beside it (ROOT/dep
// and ROOT/dep2 hold "one" until then); then the conn of that name in both is
// compared. The first difference is named, by every call; run-time state never
// counts. File dependencies compare by path and by the content read at parse
// time.
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
    {"conn A\n\tvar f 2\n\tvar a 1\n", "conn A\n\tvar a 1\n", "A", "conn A number of vars mismatch"},
    {"conn A\n", "conn A\n\tstart x\n", "A", "conn A start actions changed (actions added)"},
    {"conn A\n\tstart x\n", "conn A\n", "A", "conn A start actions changed (actions removed)"},
    {"conn A\n\tstart x\n", "conn A\n\tstart y\n", "A", "conn A start actions changed (actions differ)"},
    {"conn A\n\tstart x\n", "conn A\n\tstart x\n\tstart y\n", "A", "conn A number of start actions changed"},
    // Stop and test lists go through the comparison of start lists above:
    // one edit each names its own word and list.
    {"conn A\n", "conn A\n\tstop x\n", "A", "conn A stop actions changed (actions added)"},
    {"conn A\n\ttest x\n", "conn A\n\ttest  x\n", "A", "conn A test actions changed (actions differ)"},
    {"conn A\n\tup x\n", "conn A\n\tup y\n", "A", ""},
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
    {"conn A\n", "conn B\n", "A", "conn name changed: A != B", "one", "B"},
    {"conn A\n\tfile-dependency ROOT/dep\n", "conn A\n\tfile-dependency ROOT/dep\n", "A", nullptr},
    {"conn A\n\tfile-dependency ROOT/dep\n", "conn A\n\tfile-dependency ROOT/dep\n", "A", "file deps changed", "two"},
    {"conn A\n\tfile-dependency ROOT/dep\n", "conn A\n", "A", "File deps removed"},
    {"conn A\n", "conn A\n\tfile-dependency ROOT/dep\n", "A", "File deps added"},
    {"conn A\n\tfile-dependency ROOT/dep\n", "conn A\n\tfile-dependency ROOT/dep2\n", "A", "file deps changed"},
    {"conn A\n\tfile-dependency ROOT/dep\n", "conn A\n\tfile-dependency ROOT/dep\n\tfile-dependency ROOT/dep2\n", "A", "number of file deps differ"},
};
// clang-format on

TEST(Compare, EachEditIsFoundWithItsOwnMessage) {
    for (const compare_case &c : cases) {
        SCOPED_TRACE(std::string(c.old_text) + " -> " + c.new_text);
        test_inst t;
        t.root.write_file("dep", "one");
        t.root.write_file("dep2", "one");
        t.write_config(replaced(c.old_text, "ROOT", t.root.path()));
        ASSERT_EQ(t.load(), 0);
        tovrin_conn *old = t.conn(c.conn);
        old->current_state = TOVRIN_STATE_UP;
        old->restart_after_stopping = true;
        for (tovrin_var_sub &sub : t.inst.store_vars)
            sub.current_val = "now";
        t.root.write_file("dep", c.dep_now);
        t.write_config(replaced(c.new_text, "ROOT", t.root.path()));
        ASSERT_EQ(tovrin_config_load(&t.inst, keep_pending), 0);
        std::vector<log_record> said;
        bool info = std::string(c.said ? c.said : "").ends_with("children changed (added)");
        if (c.said != nullptr && *c.said != '\0')
            said.push_back({info ? TOVRIN_LOG_INFO : TOVRIN_LOG_DEBUG, c.said});
        for (int call = 0; call < 2; call++) {
            log_capture log(TOVRIN_LOG_DEBUG);
            EXPECT_EQ(
                tovrin_conn_compare(old, t.inst.new_conns.find(c.new_conn ? c.new_conn : c.conn)),
                c.said == nullptr ? 1 : 0);
            EXPECT_EQ(log.records, said);
        }
    }
}
