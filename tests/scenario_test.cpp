#include "tests/support/scenario.h"

#include <algorithm>

namespace marbleway::testing {
namespace {

using std::filesystem::path;

std::vector<path> scenarioFiles() {
  std::vector<path> files;
  for (const auto& entry : std::filesystem::directory_iterator(SCENARIOS)) {
    if (entry.path().extension() == ".scenario") files.push_back(entry.path());
  }
  std::ranges::sort(files);
  return files;
}

class ScenarioTest : public ::testing::TestWithParam<std::tuple<path, Interface>> {};

TEST_P(ScenarioTest, Hold) {
  ::testing::internal::CaptureStderr();
  runScenarios(std::get<path>(GetParam()), std::get<Interface>(GetParam()));
  // No part of the library writes past the console.
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

INSTANTIATE_TEST_SUITE_P(All, ScenarioTest,
                         ::testing::Combine(::testing::ValuesIn(scenarioFiles()),
                                            ::testing::Values(Interface::cpp, Interface::c)),
                         [](const auto& test) {
                           const bool isC = std::get<Interface>(test.param) == Interface::c;
                           return std::get<path>(test.param).stem().string() + (isC ? "_C" : "");
                         });

}  // namespace
}  // namespace marbleway::testing
