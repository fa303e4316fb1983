#include "tests/support/library.h"

#include "tests/support/fixture.h"

namespace marbleway::tests {

void startLibrary(const std::filesystem::path& directory, const std::string& url) {
  configure({.documentsDirectory = directory, .developmentURL = url});
  Marbleway::initMarbleway(
      "token", {{"LoggingEnabled", false}, {"SDKEnvironment", 1}, {"PrivacyMode", false}});
}

std::vector<std::string> eventsIn(const std::filesystem::path& directory) {
  return testing::query(directory / DBFileName, "SELECT EventName FROM mrbw_v2_events ORDER BY id");
}

void expectSoundStores(const std::filesystem::path& directory) {
  for (const Table& table : kTables) {
    const auto store = directory / (table.store == Store::event ? DBFileName : HTTPDBFileName);
    EXPECT_NO_THROW(testing::query(store, std::string("SELECT 1 FROM ").append(table.name)));
    EXPECT_EQ(testing::query(store, "PRAGMA integrity_check"), std::vector<std::string>{"ok"});
  }
  for (const auto& file : std::filesystem::directory_iterator(directory)) {
    EXPECT_THAT(file.path().string(), ::testing::Not(::testing::EndsWith("-new")));
  }
}

}  // namespace marbleway::tests
