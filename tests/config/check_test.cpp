#include "config/check.h"

#include "support/test_inst.h"

struct check_output {
    int status;
    std::string report, out;
};

static std::string text_of(FILE *stream) {
    std::string text(static_cast<size_t>(ftell(stream)), '\0');
    rewind(stream);
    text.resize(fread(text.data(), 1, text.size(), stream));
    fclose(stream);
    return text;
}

static check_output run_check(const std::string &path, const std::string &against = "",
                              bool dot = false) {
    FILE *report = tmpfile(), *out = tmpfile();
    int status = tovrin_config_check({path, against, dot}, report, out);
    return {status, text_of(report), text_of(out)};
}

// The report lines, each after the path of the file they are about.
static std::string report(const std::string &path, const strings &lines) {
    std::string text;
    for (const std::string &line : lines)
        text += path + line + "\n";
    return text;
}

// One file with every problem the checker knows, each reported where an
// operator can find it.
TEST(Check, ReportsEveryProblemWithItsLine) {
    temp_dir dir;
    const std::string d = dir.path();
    dir.write_file("dir/x", "");
    dir.write_file("plain", "");
    dir.write_file("t.conf",
                   "conn wan\n\tstart /bin/echo %gw% %gw% %local:peer%\n\tparent ghost\n"
                   "\tfile-dependency " +
                       d + "/missing\n\tfile-dependency " + d +
                       "/dir\n\tvar peer 10.0.0.1\n"
                       "conn vpn\n\tparent wan\n\tparent tunnel\n"  // 7
                       "\ttest /bin/echo %first:ip%\nconn tunnel\n\tparent vpn\n"
                       // Programs: not on PATH, not executable, not there,
                       // not a file; one only a variable names is left alone.
                       "\tstart no-such-program-anywhere up\n\tstart " +
                       d +  // 13
                       "/plain\n\ttest \"" + d + "/missing\" now\n\tstop " + d +
                       "/dir\n\tvar tool /no/such/tool\n\tup  \"%tool%\" run\n"
                       "conn wan\norderedgroup uplinks\n\tmember wan\n\tmember lte\n"  // 19
                       "anygroup backup\n\tmember wan\nanygroup nobody\n");            // 23
    check_output got = run_check(dir.file("t.conf"));
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(replaced(got.report, d, "ROOT"), test_file("config/golden/check_report.txt"));
    EXPECT_EQ(got.out, "");
}

// The exit status says what the daemon would do, as the manual numbers it
// (0 clean, 1 warnings, 2 refused); a second file gets the plan of a
// reload, conn by conn. (The install test checks the shipped example.)
TEST(Check, ExitStatusSaysWhatTheDaemonWouldDo) {
    temp_dir dir;
    const std::string conf = dir.file("c.conf"), refused = ": Failed To Load Config";
    const struct {
        std::string config;
        int status;
        strings report;
    } cases[] = {
        // clang-format off
        {"# nothing yet\n", 0, {}},
        {"conn a\n\n# why\n\tbogus 1\n", 2,
         {":4: Unknown clause: bogus in connection a", refused}},
        // The second piece of an over-long line is a line of its own but
        // keeps the number of the line it came from.
        {"conn a\n\tstart " + std::string(1100, 'x') + "\nconn\n", 2,
         {":2: Unknown clause: " + std::string(1100 - 1016, 'x'), refused}},
        // clang-format on
    };
    for (const auto &c : cases) {
        dir.write_file("c.conf", c.config);
        check_output got = run_check(conf);
        EXPECT_EQ(got.status, c.status) << c.config;
        EXPECT_EQ(got.report, report(conf, c.report)) << c.config;
    }
    check_output missing = run_check(dir.file("none.conf"));
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.report,
              report(dir.file("none.conf"),
                     {": Config path " + dir.file("none.conf") + " doesn't exist..."}));
    dir.write_file("old.conf",
                   "conn same\n\tstart /bin/true\nconn slower\n\ttestperiod 10\nconn gone\n"
                   "conn quiet\n\tcommandtimeout 5\n");
    // --dot draws the graph as it stands before anything runs: all grey.
    check_output drawn = run_check(dir.file("old.conf"), "", true);
    EXPECT_EQ(drawn.status, 0);
    EXPECT_NE(drawn.out.find("digraph G {\n\tcompound=true;\n"), std::string::npos);
    EXPECT_EQ(drawn.out.find("fillcolor=\"#"), std::string::npos);
    dir.write_file("new.conf",
                   "conn same\n\tstart /bin/true\nconn slower\n\ttestperiod 20\n"
                   "conn quiet\n\tcommandtimeout 6\nconn fresh\n\tparent same\n");
    check_output got = run_check(dir.file("old.conf"), dir.file("new.conf"));
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.report, "");
    // "same" gains a child, which the comparison names.
    EXPECT_EQ(got.out,
              "restart same: conn same children changed (added)\n"
              "restart slower: conn slower test period changed: 10 != 20\n"
              "remove gone\nrestart quiet\nadd fresh\n");
    dir.write_file("bad.conf", "conn\n");
    got = run_check(dir.file("old.conf"), dir.file("bad.conf"));
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.report, report(dir.file("bad.conf"), {":1: Connection defined without a name",
                                                        ": Failed To Load Config"}));
    EXPECT_EQ(got.out, "");
}

// Out of memory anywhere, the checker reports what it could or says so and
// refuses; no failure ends it.
TEST(Check, SurvivesAnySingleAllocationFailure) {
    temp_dir dir;
    dir.write_file("t.conf",
                   "conn wan\n\tstart /bin/echo %gw%\nconn vpn-with-a-long-name\n"
                   "\tparent wan\n\tparent ghost-with-a-long-name\n");
    const tovrin_check_request request{dir.file("t.conf"), "", false};
    bool said = false;
    for (long k = 0;; k++) {
        ASSERT_LT(k, 100000);
        FILE *report = tmpfile(), *out = tmpfile();
        allocation_fail_after(k);
        int status = tovrin_config_check(request, report, out);
        bool failed = allocation_failure_happened();
        std::string text = text_of(report);
        fclose(out);
        if (!failed) {
            EXPECT_EQ(status, 1);
            break;
        }
        said |= status == 2 && text.ends_with(": out of memory\n");
    }
    EXPECT_TRUE(said);
}
