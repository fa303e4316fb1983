#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <string>

#include "Marbleway/platform/files.h"
#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/services.h"
#include "Marbleway/platform/windows/text.h"
#include "Marbleway/platform/windows/time_zone.h"
#include "Marbleway/platform/windows/user_interface.h"
#include "Marbleway/store/store.h"
#include "tests/support/fixture.h"

namespace marbleway::platform {
namespace {

TEST(WindowsPlatformTest, OpensAbsoluteLinksOnly) {
  for (const char* url : {"https://example.com/a?b#c", "todo://list", "mailto:a@example.com"}) {
    EXPECT_TRUE(isOpenable(url)) << url;
  }
  for (const char* url :
       {"", "cmd", "c:/windows/system32/cmd.exe", "FILE:///c:/a.exe", R"(\\host\a)", "a b://c",
        "https://a\"b", "javascript:alert(1)", "search-ms://a", "ms-msdt:/id", "mk:@a"}) {
    EXPECT_FALSE(isOpenable(url)) << url;
  }
}

TEST(WindowsPlatformTest, NoTextOfUnicodeIsLostInConversions) {
  EXPECT_EQ(wide("\u00E4\U0001F600"), L"\u00E4\U0001F600");
  EXPECT_EQ(narrow(L"\u00E4\U0001F600"), "\u00E4\U0001F600");
  EXPECT_EQ(wide("a\xFFz"), L"a\uFFFDz");
  EXPECT_EQ(narrow(std::wstring(L"a") + wchar_t{0xD83D} + L"z"), "a\uFFFDz");
}

TEST(WindowsPlatformTest, ZonesHaveTheirIANANames) {
  EXPECT_EQ(timeZoneName(), "Asia/Calcutta");  // of TZ=Asia/Kolkata, which the build sets for Wine
  EXPECT_EQ(knownTimeZone(L"W. Europe Standard Time"), "Europe/Berlin");
  EXPECT_EQ(knownTimeZone(L"Other Standard Time"), "");
}

TEST(WindowsPlatformTest, StoresLieInLongAndUnicodePaths) {
  const marbleway::testing::TemporaryDirectory folder;
  setDocumentsDirectory(folder.path() / L"\u00E4\u65E5\U0001F600" / std::wstring(120, L'a') /
                        std::wstring(120, L'b'));
  makeDocumentsDirectory();
  createStores();
  for (const Store store : {Store::event, Store::network}) {
    EXPECT_EQ(kindOf(pathOf(store).c_str()), FileKind::filled);
  }
  for (const char* text : {"first", "second"}) {
    makeFileDefaults()->setText("unwritten", "lost");
    const auto settings = makeFileDefaults();
    settings->setText("key", text);
    settings->synchronize();
    EXPECT_EQ(makeFileDefaults()->text("key"), text);
  }
}

TEST(WindowsPlatformTest, ALockFileHeldByAnotherProgramIsBusy) {
  const marbleway::testing::TemporaryDirectory folder;
  const std::wstring name = (folder.path() / "lock").native();
  HANDLE other = CreateFileW(name.c_str(), GENERIC_READ, 0, nullptr, CREATE_NEW, 0, nullptr);
  EXPECT_TRUE(DirectoryLock(folder.path()).isBusy());
  CloseHandle(other);
  EXPECT_TRUE(DirectoryLock(folder.path()).isHeld());
}

TEST(WindowsPlatformTest, LinesThatNobodyReadsBlockNobody) {
  HANDLE reader = nullptr, writer = nullptr, former = GetStdHandle(STD_ERROR_HANDLE);
  ASSERT_NE(CreatePipe(&reader, &writer, nullptr, 4096), 0);
  SetStdHandle(STD_ERROR_HANDLE, writer);
  const auto console = makeStandardError();
  for (int i = 0; i < 1000; ++i) console->writeLine(std::string(1000, 'x'));
  SetStdHandle(STD_ERROR_HANDLE, former);
}

}  // namespace
}  // namespace marbleway::platform
