#include "config/compare.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/load.h"
#include "supervise/conn.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/test_inst.h"

namespace {

using records = std::vector<log_record>;

void keep_pending(tovrin_inst *) {}

// The old text is put in force, the new one parsed beside it; then the
// conn of the given name in both is compared.
struct compare_case {
    const char *what;
    std::string old_text;
    std::string new_text;
    const char *conn;
    int same;
    records said;
};

class Compare : public ::testing::Test {
  protected:
    void parse(const std::string &old_text, const std::string &new_text) {
        t.write_config(old_text);
        ASSERT_EQ(t.load(), 0);
        t.write_config(new_text);
        ASSERT_EQ(tovrin_config_load(&t.inst, keep_pending), 0);
    }

    int compare(const char *name, records *said) {
        const tovrin_conn *o = t.inst.conns.find(name);
        const tovrin_conn *n = t.inst.new_conns.find(name);
        EXPECT_NE(o, nullptr) << name;
        EXPECT_NE(n, nullptr) << name;
        if (o == nullptr || n == nullptr)
            return -1;
        log_capture log(TOVRIN_LOG_DEBUG);
        int result = tovrin_conn_compare(o, n);
        *said = log.records();
        return result;
    }

    test_inst t;
};

constexpr int D = TOVRIN_LOG_DEBUG;

std::vector<compare_case> cases() {
    const std::string a = "conn A\n\tstart /bin/true\n";
    return {
        {"identical text",
         a + "\tup sleep 9\n\tvar x 1\n\tstord_var y some.key\n",
         a + "\tup sleep 9\n\tvar x 1\n\tstord_var y some.key\n",
         "A",
         1,
         {}},
        {"type", "conn A\n", "anygroup A\n", "A", 0, {{D, "conn A type changed: 0 != 1"}}},
        {"test period",
         "conn A\n",
         "conn A\n\ttestperiod 5\n",
         "A",
         0,
         {{D, "conn A test period changed: 30 != 5"}}},
        {"test delay",
         "conn A\n",
         "conn A\n\ttestdelay 7\n",
         "A",
         0,
         {{D, "conn A test delay changed: 30 != 7"}}},
        {"test timeout is silent", "conn A\n", "conn A\n\ttesttimeout 5\n", "A", 0, {}},
        {"test threshold is silent", "conn A\n", "conn A\n\ttestthreshold 5\n", "A", 0, {}},
        {"command timeout is silent", "conn A\n", "conn A\n\tcommandtimeout 5\n", "A", 0, {}},
        {"maxrestarts is not compared", "conn A\n", "conn A\n\tmaxrestarts 3\n", "A", 1, {}},
        {"restartdelayfactor is not compared",
         "conn A\n",
         "conn A\n\trestartdelayfactor 4\n",
         "A",
         1,
         {}},
        {"log mask",
         "conn A\n",
         "conn A\n\tlog +commanddebug\n",
         "A",
         0,
         {{D, "conn A log mask changed"}}},
        {"defined after only being named",
         "conn B\n\tparent A\n",
         "conn B\n\tparent A\nconn A\n",
         "A",
         0,
         {{D, "conn A is_deaf changed"}}},
        {"var added", "conn A\n", "conn A\n\tvar x 1\n", "A", 0, {{D, "conn A var mismatch"}}},
        {"var removed", "conn A\n\tvar x 1\n", "conn A\n", "A", 0, {{D, "conn A var mismatch"}}},
        {"var value",
         "conn A\n\tvar x 1\n",
         "conn A\n\tvar x 2\n",
         "A",
         0,
         {{D, "conn A var x value 1 mismatch"}}},
        {"var kind",
         "conn A\n\tvar x 1\n",
         "conn A\n\tstord_var x 1\n",
         "A",
         0,
         {{D, "conn A var x type mismatch"}}},
        {"store key",
         "conn A\n\tstord_var x k1\n",
         "conn A\n\tstord_var x k2\n",
         "A",
         0,
         {{D, "conn A var x stord_prefix k1 mismatch"}}},
        // "a" and "f" share a list, "a" and "b" do not.
        {"swap within a list",
         "conn A\n\tvar a 1\n\tvar f 2\n",
         "conn A\n\tvar f 2\n\tvar a 1\n",
         "A",
         0,
         {{D, "conn A var f name mismatch"}}},
        {"swap across lists",
         "conn A\n\tvar a 1\n\tvar b 2\n",
         "conn A\n\tvar b 2\n\tvar a 1\n",
         "A",
         1,
         {}},
        {"one more var in a list",
         "conn A\n\tvar a 1\n",
         "conn A\n\tvar a 1\n\tvar f 2\n",
         "A",
         0,
         {{D, "conn A var a name mismatch"}}},
        {"start added",
         "conn A\n",
         a,
         "A",
         0,
         {{D, "conn A start actions changed (actions added)"}}},
        {"start removed",
         a,
         "conn A\n",
         "A",
         0,
         {{D, "conn A start actions changed (actions removed)"}}},
        {"start differs",
         a,
         "conn A\n\tstart /bin/false\n",
         "A",
         0,
         {{D, "conn A start actions changed (actions differ)"}}},
        {"one start more",
         a,
         a + "\tstart /bin/false\n",
         "A",
         0,
         {{D, "conn A number of start actions changed"}}},
        {"stop differs",
         "conn A\n\tstop x\n",
         "conn A\n\tstop y\n",
         "A",
         0,
         {{D, "conn A stop actions changed (actions differ)"}}},
        {"test added",
         "conn A\n",
         "conn A\n\ttest x\n",
         "A",
         0,
         {{D, "conn A test actions changed (actions added)"}}},
        {"command text counts to the byte",
         "conn A\n\ttest x\n",
         "conn A\n\ttest  x\n",
         "A",
         0,
         {{D, "conn A test actions changed (actions differ)"}}},
        {"up is silent", "conn A\n\tup x\n", "conn A\n\tup y\n", "A", 0, {}},
        {"parent added",
         "conn A\nconn P\n",
         "conn A\n\tparent P\nconn P\n",
         "A",
         0,
         {{D, "conn A parents changed (added)"}}},
        {"parent differs",
         "conn A\n\tparent P\n",
         "conn A\n\tparent Q\n",
         "A",
         0,
         {{D, "conn A parents changed (differ)"}}},
        {"child added, through the other side",
         "conn A\nconn P\n",
         "conn A\n\tparent P\nconn P\n",
         "P",
         0,
         {{TOVRIN_LOG_INFO, "conn P children changed (added)"}}},
        {"child removed",
         "conn A\n\tparent P\nconn P\n",
         "conn A\nconn P\n",
         "P",
         0,
         {{D, "conn P children changed (removed)"}}},
        {"child renamed",
         "conn P\n\tchild A\n",
         "conn P\n\tchild B\n",
         "P",
         0,
         {{D, "conn P child A name changed"}}},
        {"one child more",
         "conn P\n\tchild A\n",
         "conn P\n\tchild A\n\tchild B\n",
         "P",
         0,
         {{D, "conn P number of children changed"}}},
        {"children in another order",
         "conn P\n\tchild A\n\tchild B\n",
         "conn P\n\tchild B\n\tchild A\n",
         "P",
         0,
         {{D, "conn P child A name changed"}}},
        {"group joined",
         "orderedgroup g\nconn A\n",
         "orderedgroup g\n\tmember A\nconn A\n",
         "A",
         0,
         {}},
        {"members",
         "orderedgroup g\n\tmember A\n",
         "orderedgroup g\n\tmember A\n\tmember B\n",
         "g",
         0,
         {}},
        {"failover timeout",
         "orderedgroup g\n",
         "orderedgroup g\n\tfailovertimeout 5\n",
         "g",
         0,
         {}},
        {"failforward period",
         "orderedgroup g\n",
         "orderedgroup g\n\tfailforwardperiod 5\n",
         "g",
         0,
         {}},
        {"mutex", "orderedgroup g\n", "orderedgroup g\n\tmutex\n", "g", 0, {}},
    };
}

TEST_F(Compare, EachEditIsFoundOnceWithItsOwnMessage) {
    for (const compare_case &c : cases()) {
        SCOPED_TRACE(c.what);
        test_inst fresh;
        fresh.write_config(c.old_text);
        ASSERT_EQ(fresh.load(), 0);
        fresh.write_config(c.new_text);
        ASSERT_EQ(tovrin_config_load(&fresh.inst, keep_pending), 0);
        const tovrin_conn *o = fresh.inst.conns.find(c.conn);
        const tovrin_conn *n = fresh.inst.new_conns.find(c.conn);
        ASSERT_NE(o, nullptr);
        ASSERT_NE(n, nullptr);
        log_capture log(TOVRIN_LOG_DEBUG);
        EXPECT_EQ(tovrin_conn_compare(o, n), c.same);
        EXPECT_EQ(log.records(), c.said);
    }
}

TEST_F(Compare, FileDepsCompareByPathAndContent) {
    temp_dir files;
    files.write_file("dep", "one");
    const std::string text = "conn A\n\tfile-dependency " + files.file("dep") + "\n";
    records said;

    parse(text, text);
    EXPECT_EQ(compare("A", &said), 1);

    files.write_file("dep", "two");
    ASSERT_EQ(tovrin_config_load(&t.inst, keep_pending), 0);
    EXPECT_EQ(compare("A", &said), 0);
    EXPECT_EQ(said, (records{{D, "file deps changed"}}));

    t.write_config("conn A\n");
    ASSERT_EQ(tovrin_config_load(&t.inst, keep_pending), 0);
    EXPECT_EQ(compare("A", &said), 0);
    EXPECT_EQ(said, (records{{D, "File deps removed"}}));

    files.write_file("dep", "one");
    files.write_file("dep2", "");
    t.write_config(text + "\tfile-dependency " + files.file("dep2") + "\n");
    ASSERT_EQ(tovrin_config_load(&t.inst, keep_pending), 0);
    EXPECT_EQ(compare("A", &said), 0);
    EXPECT_EQ(said, (records{{D, "number of file deps differ"}}));
}

TEST_F(Compare, RunTimeStateIsNotCompared) {
    const std::string text =
        "orderedgroup g\n\tmember A\nconn A\n\tstord_var v some.key\n\tup sleep 9\n";
    parse(text, text);
    tovrin_conn *o = t.inst.conns.find("A");
    o->current_state = 6;
    o->n_test_passes = 4;
    o->restart_after_stopping = 1;
    o->vars[tovrin_var_index("v")].front()->sub->current_val = "now";
    t.inst.conns.find("g")->active_conn_name = "A";
    records said;
    EXPECT_EQ(compare("A", &said), 1);
    EXPECT_EQ(compare("g", &said), 1);
    // Every call says it again.
    t.inst.conns.find("A")->testperiod = 1;
    compare("A", &said);
    EXPECT_EQ(compare("A", &said), 0);
    EXPECT_EQ(said, (records{{D, "conn A test period changed: 1 != 30"}}));
}

TEST_F(Compare, DifferentNamesAreReportedFirst) {
    parse("conn A\n\ttestperiod 1\nconn B\n", "conn A\nconn B\n");
    log_capture log(TOVRIN_LOG_DEBUG);
    EXPECT_EQ(tovrin_conn_compare(t.inst.conns.find("A"), t.inst.new_conns.find("B")), 0);
    EXPECT_EQ(log.records(), (records{{D, "conn name changed: A != B"}}));
}

}  // namespace
