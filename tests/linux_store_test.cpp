#include <sys/stat.h>

#include <map>

#include "Marbleway/platform/services.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

using LinuxStoreTest = MarblewayTest;

TEST_F(LinuxStoreTest, DirectoriesAndFilesBelongToTheirOwnerAloneWhateverTheUmask) {
  for (const mode_t mask : {0U, 022U, 0277U, 0777U}) {
    SCOPED_TRACE(mask);
    const fs::path top = directory.path() / std::to_string(mask);
    configure({.documentsDirectory = top / "deep"});
    platform::install({.userDefaults = platform::makeFileDefaults()});
    const mode_t former = umask(mask);
    beginSession();  // leaves a journal
    umask(former);
    std::map<std::string, int> modes{{"", static_cast<int>(fs::status(top).permissions())}};
    for (const auto& entry : fs::recursive_directory_iterator(top)) {
      modes[entry.path().filename()] = static_cast<int>(entry.status().permissions());
    }
    EXPECT_THAT(modes, UnorderedElementsAre(Pair("", 0700), Pair("deep", 0700),
                                            Pair(DBFileName, 0600), Pair(HTTPDBFileName, 0600),
                                            Pair(std::string(DBFileName) + "-journal", 0600),
                                            Pair("user-defaults.json", 0600)));
  }
}

// No row waits for a pipe in the journal's place, or for a directory that cannot be made.
TEST_F(LinuxStoreTest, WhatCannotBeOpenedCostsTheRowAlone) {
  beginSession();
  const fs::path journal = storePath().concat("-journal");
  fs::remove(journal);
  ASSERT_EQ(mkfifo(journal.c_str(), S_IRUSR | S_IWUSR), 0);
  Marbleway::trackEvent("lost");
  fs::remove(journal);
  EXPECT_THAT(rows("mrbw_v2_events"), IsEmpty());
  fs::resize_file(storePath(), 3ULL << 30U);  // more than 32 bits with a sign count
  Marbleway::trackEvent("recorded");
  EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(1));
  platform::setDocumentsDirectory("/proc/none");
  lines();
  Marbleway::initMarbleway("token");
  Marbleway::trackEvent("lost");
  EXPECT_THAT(lines(), SizeIs(2));
}

}  // namespace
}  // namespace marbleway::testing
