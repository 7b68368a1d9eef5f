#include "config/check.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "supervise/inst.h"
#include "support/temp_dir.h"

namespace {

struct check_output {
    int status;
    std::string report;
    std::string out;
};

std::string stream_text(FILE *stream) {
    std::string text;
    rewind(stream);
    for (int ch; (ch = fgetc(stream)) != EOF;)
        text += static_cast<char>(ch);
    fclose(stream);
    return text;
}

check_output run_check(const tovrin_check_request &request) {
    FILE *report = tmpfile();
    FILE *out = tmpfile();
    int status = tovrin_config_check(request, report, out);
    return {status, stream_text(report), stream_text(out)};
}

// One file with every problem the checker knows, each reported where an
// operator can find it.
TEST(Check, ReportsEveryProblemWithItsLine) {
    temp_dir dir;
    dir.write_file("dir/x", "");
    dir.write_file("t.conf",
                   "conn wan\n"                                  // 1
                   "\tstart /bin/ping %gw% %gw% %local:peer%\n"  // 2
                   "\tparent ghost\n"                            // 3
                   "\tfile-dependency " +
                       dir.file("missing") +
                       "\n"
                       "\tfile-dependency " +
                       dir.file("dir") +
                       "\n"
                       "\tvar peer 10.0.0.1\n"  // 6
                       "conn vpn\n"             // 7
                       "\tparent wan\n"
                       "\tparent tunnel\n"
                       "\ttest /bin/echo %first:ip%\n"  // 10
                       "conn tunnel\n"                  // 11
                       "\tparent vpn\n"
                       "conn wan\n"              // 13
                       "orderedgroup uplinks\n"  // 14
                       "\tmember wan\n\tmember lte\n"
                       "anygroup backup\n"  // 17
                       "\tmember wan\n"
                       "anygroup nobody\n");  // 19
    check_output got = run_check({dir.file("t.conf"), "", false});
    const std::string p = dir.file("t.conf");
    EXPECT_EQ(got.status, TOVRIN_CHECK_WARNINGS);
    EXPECT_EQ(
        got.report,
        p + ":13: Duplicate name used in tovrin config: wan\n" + p +
            ": Conn wan has multiple groups specified\n" + p +
            ":1: conn wan: parent ghost is defined nowhere; it will be a deaf conn\n" + p +
            ":14: group uplinks: member lte is defined nowhere; it will be a deaf conn\n" + p +
            ":17: group backup: member wan stays in group uplinks, which claimed it first\n" + p +
            ":19: group nobody has no members\n" + p +
            ":1: conn wan: start command refers to %gw%, which no conn on its search path "
            "defines\n" +
            p + ":7: variable search for ip found a cycle through conn vpn\n" + p +
            ":7: conn vpn: test command refers to %first:ip%, which no conn on its search "
            "path defines\n" +
            p + ":1: conn wan: file-dependency " + dir.file("missing") +
            " cannot be read: No such file or directory\n" + p + ":1: conn wan: file-dependency " +
            dir.file("dir") + " cannot be read: it is a directory\n" + p +
            ":7: parent cycle: vpn -> tunnel -> vpn\n");
    EXPECT_EQ(got.out, "");
}

TEST(Check, ExitStatusSaysWhatTheDaemonWouldDo) {
    temp_dir dir;
    struct {
        std::string config;
        int status;
        std::string report;  // each line after "PATH"
    } cases[] = {
        {"# nothing yet\n", TOVRIN_CHECK_CLEAN, ""},
        {"conn a\n\tstart /bin/true\nconn b\n\tparent a\n", TOVRIN_CHECK_CLEAN, ""},
        {"conn a\n\n# why\n\tbogus 1\n", TOVRIN_CHECK_REFUSED,
         ":4: Unknown clause: bogus in connection a\n: Failed To Load Config\n"},
        {"\tstart x\n", TOVRIN_CHECK_REFUSED,
         ":1: New connection definitions must start without whitespace\n"
         ": Failed To Load Config\n"},
        // The second piece of an over-long line is a line of its own but
        // keeps the number of the line it came from.
        {"conn a\n\tstart " + std::string(1100, 'x') + "\nconn\n", TOVRIN_CHECK_REFUSED,
         ":2: Unknown clause: " + std::string(1100 - 1016, 'x') + "\n: Failed To Load Config\n"},
    };
    for (const auto &c : cases) {
        dir.write_file("c.conf", c.config);
        check_output got = run_check({dir.file("c.conf"), "", false});
        EXPECT_EQ(got.status, c.status) << c.config;
        std::string expected;
        for (const char *line = c.report.c_str(); *line != '\0';) {
            const char *end = strchr(line, '\n') + 1;
            expected += dir.file("c.conf") + std::string(line, end);
            line = end;
        }
        EXPECT_EQ(got.report, expected) << c.config;
    }
    check_output missing = run_check({dir.file("none.conf"), "", false});
    EXPECT_EQ(missing.status, TOVRIN_CHECK_REFUSED);
    EXPECT_EQ(missing.report, dir.file("none.conf") + ": Config path " + dir.file("none.conf") +
                                  " doesn't exist...\n");
}

TEST(Check, TheShippedExampleIsClean) {
    check_output got = run_check({TOVRIN_TEST_DIR "/../examples/tovrin.conf", "", false});
    EXPECT_EQ(got.report, "");
    EXPECT_EQ(got.status, TOVRIN_CHECK_CLEAN);
}

TEST(Check, PlansAReloadConnByConn) {
    temp_dir dir;
    dir.write_file("old.conf",
                   "conn same\n\tstart /bin/true\n"
                   "conn slower\n\ttestperiod 10\n"
                   "conn gone\n"
                   "conn quiet\n\tcommandtimeout 5\n");
    dir.write_file("new.conf",
                   "conn same\n\tstart /bin/true\n"
                   "conn slower\n\ttestperiod 20\n"
                   "conn quiet\n\tcommandtimeout 6\n"
                   "conn fresh\n\tparent same\n");
    check_output got = run_check({dir.file("old.conf"), dir.file("new.conf"), false});
    EXPECT_EQ(got.status, TOVRIN_CHECK_CLEAN);
    EXPECT_EQ(got.report, "");
    // "same" gains a child, which the comparison names.
    EXPECT_EQ(got.out,
              "restart same: conn same children changed (added)\n"
              "restart slower: conn slower test period changed: 10 != 20\n"
              "remove gone\n"
              "restart quiet\n"
              "add fresh\n");

    dir.write_file("bad.conf", "conn\n");
    got = run_check({dir.file("old.conf"), dir.file("bad.conf"), false});
    EXPECT_EQ(got.status, TOVRIN_CHECK_REFUSED);
    EXPECT_EQ(got.report, dir.file("bad.conf") + ":1: Connection defined without a name\n" +
                              dir.file("bad.conf") + ": Failed To Load Config\n");
    EXPECT_EQ(got.out, "");
}

TEST(Check, DotDrawsTheGraphBeforeAnythingRuns) {
    temp_dir dir;
    dir.write_file("g.conf", "conn a\nconn b\n\tparent a\nanygroup g\n\tmember b\n");
    check_output got = run_check({dir.file("g.conf"), "", true});
    EXPECT_EQ(got.status, TOVRIN_CHECK_CLEAN);
    size_t body = got.out.find("digraph G {\n");
    ASSERT_NE(body, std::string::npos) << got.out;
    EXPECT_EQ(got.out.substr(body),
              "digraph G {\n\tcompound=true;\n"
              "\t\"a\" [style=filled,fillcolor=\"grey\", label=\"\\N\\n\"];\n"
              "\t\"a\"->\"b\";\n"
              "\t\"b\" [style=filled,fillcolor=\"grey\", label=\"\\N\\n\"];\n"
              "\t\"g\" [style=filled,fillcolor=\"grey\", label=\"\\N\\n\"];\n"
              "\t\"g\" [shape=box,label=\"group g\"];\n"
              "\t\"g\"->\"b\" [label=\"0\",style=dotted];\n"
              "\tsubgraph cluster2 {\n\t\t\"g\";\n\t\t\"b\";\n\t}\n"
              "}\n");
}

}  // namespace
