// Runs every scenario file of the suite: each scenario is one test, named
// after its file and its title.

#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>

#include "support/scenario.h"

namespace {

class Scenario : public ::testing::TestWithParam<scenario> {};

TEST_P(Scenario, Runs) {
    scenario_run(GetParam());
}

std::string test_name(const ::testing::TestParamInfo<scenario> &info) {
    std::string name =
        std::filesystem::path(info.param.file).stem().string() + "_" + info.param.name;
    for (char &c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c)))
            c = '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Files, Scenario, ::testing::ValuesIn(scenarios_under(TOVRIN_TEST_DIR)),
                         test_name);

}  // namespace
