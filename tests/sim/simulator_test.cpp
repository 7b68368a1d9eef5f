// The simulator on the cases under golden/: each NAME.sim runs against
// NAME.conf and must print NAME.timeline, line for line.

#include "sim/simulator.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/test_inst.h"

namespace {

const std::string cases_dir = TOVRIN_TEST_DIR "/sim/golden";

// The timeline of a script file, with the cases' directory left out of the
// file names it shows.
std::string simulate(const std::string &name) {
    sim_script script;
    auto error = sim_script_parse(read_file(cases_dir + "/" + name + ".sim"), cases_dir, &script);
    EXPECT_FALSE(error) << name << ":" << error->line << ": " << error->message;
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    sim_outcome outcome =
        tovrin_simulate(script, {cases_dir + "/" + name + ".conf", {}}, out, false);
    fclose(out);
    std::string timeline(text, size);
    free(text);
    EXPECT_EQ(outcome.result, sim_outcome::RAN) << name;
    return replaced(timeline, cases_dir + "/", "");
}

strings case_names() {
    strings names;
    for (const auto &entry : std::filesystem::directory_iterator(cases_dir))
        if (entry.path().extension() == ".sim")
            names.push_back(entry.path().stem());
    std::sort(names.begin(), names.end());
    return names;
}

class Timeline : public ::testing::TestWithParam<std::string> {};

TEST_P(Timeline, MatchesGolden) {
    EXPECT_EQ(simulate(GetParam()), read_file(cases_dir + "/" + GetParam() + ".timeline"));
}

INSTANTIATE_TEST_SUITE_P(Cases, Timeline, ::testing::ValuesIn(case_names()),
                         [](const auto &p) { return p.param; });

// --log replaces the masks of the file: every word applies to each mask
// that knows it, starting from the defaults. (tovrin-sim's test shows them
// reaching the daemon's conns and its own messages.)
TEST(SimLogMasks, WordsApplyToEveryMaskThatKnowsThem) {
    struct row {
        const char *words;
        std::optional<sim_log_masks> masks;
    } rows[] = {
        {"all", sim_log_masks{TOVRIN_CONN_LOG_ALL, TOVRIN_INST_LOG_ALL}},
        {"none,+failover", sim_log_masks{TOVRIN_LOG_FAILOVER, 0}},
        {"+debugmessages", sim_log_masks{TOVRIN_CONN_LOG_DEFAULT,
                                         TOVRIN_INST_LOG_DEFAULT | TOVRIN_INST_LOG_DEBUGMESSAGES}},
        {"-externalcommands",
         sim_log_masks{TOVRIN_CONN_LOG_DEFAULT & ~TOVRIN_LOG_EXTERNALCOMMANDS, 0}},
        {"all,", std::nullopt},
    };
    for (const row &r : rows) {
        std::optional<sim_log_masks> got = sim_log_masks_parse(r.words);
        ASSERT_EQ(got.has_value(), r.masks.has_value()) << r.words;
        if (got) {
            EXPECT_EQ(got->conn, r.masks->conn) << r.words;
            EXPECT_EQ(got->instance, r.masks->instance) << r.words;
        }
    }
}

}  // namespace
