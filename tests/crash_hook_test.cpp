#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "tests/support/child.h"
#include "tests/support/crashes.h"
#include "tests/support/fixture.h"
#include "tests/support/library.h"

namespace marbleway::tests {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::query;
using ::testing::SizeIs;
using ::testing::StartsWith;

class CrashHookTest : public ::testing::TestWithParam<Crash> {
 protected:
  CrashHookTest() {
    fs::permissions(directory(), fs::perms::all);
  }  // one child gives up its rights

  const fs::path& directory() const { return folder_.path(); }
  // The end of a process that fails as the crash `name` does.
  std::string run(const char* name, int place = 0) const {
    return Child([&] {
             Child::exec("exec " CRASH_PROGRAM " " + std::string(name) + " " +
                         directory().string() + " " + std::to_string(place));
           })
        .wait();
  }
  std::vector<std::string> sessionsOfCrashes() const {
    return query(directory() / DBFileName,
                 "SELECT count(*) || ' ' || count(DISTINCT SessionID) FROM mrbw_v2_crashes");
  }

 private:
  const testing::TemporaryDirectory folder_;
};

// The places follow the seed, which each repetition increases.
TEST_P(CrashHookTest, LeavesOneRowAndItsOwnEnd) {
  const Crash& crash = GetParam();
  const int place = (24 + ::testing::UnitTest::GetInstance()->random_seed()) % 48;
  EXPECT_EQ(run(crash.name, place), crash.end) << "place " << place;
  EXPECT_EQ(run("Start"), "");
  expectSoundStores(directory());
  const auto rows = query(directory() / DBFileName,
                          "SELECT CrashDetails || char(10) || StackTrace FROM mrbw_v2_crashes");
  ASSERT_THAT(rows, SizeIs(crash.description != nullptr ? 1 : 0)) << "place " << place;
  if (rows.empty()) return;
  EXPECT_THAT(rows[0], StartsWith(crash.description));
  // A row that the next start makes knows the modules only, or nothing if the process ended soon.
  EXPECT_THAT(rows[0],
              AnyOf(HasSubstr(crash.function), HasSubstr("tests + 0x"), HasSubstr("0 ? 0x")));
}
INSTANTIATE_TEST_SUITE_P(Ways, CrashHookTest,
                         ::testing::ValuesIn(crashes().begin(), crashes().end()),
                         [](const auto& way) { return std::string(way.param.name); });

TEST_F(CrashHookTest, ACrashHasOneRowWhateverItsRecordSays) {
  const fs::path record = directory() / "crash-record-0.bin";
  run("Write");
  EXPECT_EQ(fs::status(record).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  // As if the process had ended between the row's commit and the mark.
  std::fstream(record).seekp(8).put(1);
  run("Start");
  run("Start");
  EXPECT_THAT(sessionsOfCrashes(), ElementsAre("1 1"));
}

TEST_F(CrashHookTest, RecordsOfOthersAndOtherFilesAreLeftAlone) {
  mkfifo((directory() / "crash-record-0.bin").c_str(), S_IRUSR | S_IWUSR);
  fs::create_symlink(directory() / "elsewhere", directory() / "crash-record-1.bin");
  std::ofstream(directory() / "crash-record-2.bin") << std::string(3984, '\1');
  run("InATransaction");  // each crash leaves a record, its row is made later
  run("InATransaction");
  run("Start");
  EXPECT_THAT(sessionsOfCrashes(), ElementsAre("2 2"));
  EXPECT_FALSE(fs::exists(directory() / "elsewhere"));
}

}  // namespace
}  // namespace marbleway::tests

// A child of a test is given the name of a crash, a directory and a place.
int main(int count, char** arguments) {
  if (count == 4 && *arguments[1] != '-') {
    (void)!std::freopen("/dev/null", "w", stderr);
    marbleway::tests::startAndFail(arguments[1], arguments[2], std::atoi(arguments[3]));
    return 0;
  }
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
