#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "Marbleway/store/schema.h"
#include "tests/support/fixture.h"
#include "tests/support/process_ends.h"

namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

tests::Failed fail(const std::string& way, const fs::path& directory) {
  return tests::fail(CRASHING_CHILD, way, directory);
}

std::vector<std::string> crashesIn(const fs::path& directory) {
  return query(directory / DBFileName,
               "SELECT count(*) || ' ' || count(DISTINCT SessionID) FROM mrbw_v2_crashes");
}

TEST(CrashHookTest, EveryWayOfFailingLeavesItsRowAndItsEnd) {
  int place = 0;
  for (const tests::Failing& failing : tests::kFailing) {
    SCOPED_TRACE(failing.way);
    const TemporaryDirectory documents;
    EXPECT_EQ(tests::crash(CRASHING_CHILD, failing, documents.path(), place++), "");
  }
}

TEST(CrashHookTest, CaptureUsesLittleOfASmallAlternateStack) {
  const TemporaryDirectory documents;
  EXPECT_LT(std::stoi(fail("small stack", documents.path()).output), 4096);
}

TEST(CrashHookTest, ACrashHasOneRowWhateverItsRecordSays) {
  const TemporaryDirectory documents;
  const fs::path record = documents.path() / "crash-record-0.bin";
  fail("write", documents.path());
  EXPECT_EQ(fs::status(record).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  // As if the process had ended between the row's commit and the mark.
  std::fstream(record).seekp(8).put(1);
  fail("start", documents.path());
  fail("start", documents.path());
  EXPECT_THAT(crashesIn(documents.path()), ElementsAre("1 1"));
}

TEST(CrashHookTest, RecordsOfOthersAndOtherFilesAreLeftAlone) {
  const TemporaryDirectory documents;
  const fs::path& directory = documents.path();
  mkfifo((directory / "crash-record-0.bin").c_str(), S_IRUSR | S_IWUSR);
  fs::create_symlink(directory / "elsewhere", directory / "crash-record-1.bin");
  std::ofstream(directory / "crash-record-2.bin") << std::string(3984, '\1');
  fail("in a transaction", directory);  // each crash leaves a record, its row is made later
  fail("in a transaction", directory);
  fail("start", directory);
  EXPECT_THAT(crashesIn(directory), ElementsAre("2 2"));
  EXPECT_FALSE(fs::exists(directory / "elsewhere"));
}

}  // namespace
}  // namespace marbleway::testing
