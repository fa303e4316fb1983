#include "Marbleway/platform/platform.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/testing/fake_time.h"
#include "Marbleway/platform/testing/recording_console.h"
#include "tests/support/fixture.h"

namespace marbleway::platform {
namespace {

namespace fs = std::filesystem;

TEST(PlatformTest, HostServicesReplaceDefaultsOneByOne) {
  const auto before = current();
  const auto console = std::make_shared<testing::RecordingConsole>();
  const auto clock = std::make_shared<testing::FakeTime>();
  install({.console = console});
  install({.clock = clock});
  EXPECT_EQ(current()->console, console);
  EXPECT_EQ(current()->clock, clock);
  EXPECT_EQ(current()->mainLoop, before->mainLoop);
  EXPECT_NE(before->console, console) << "work in flight keeps its services";
  install(*before);
}

TEST(PathsTest, DataDirectoryFollowsAbsoluteVariablesOnly) {
  using Variable = std::optional<std::string>;
  const auto set = [](const char* name, const Variable& value) {
    value ? setenv(name, value->c_str(), 1) : unsetenv(name);
  };
  const char* former = std::getenv("HOME");
  const Variable home = former == nullptr ? Variable() : former;
  set("HOME", "/me");
  for (const Variable& relative : {Variable(), Variable(""), Variable("data")}) {
    set("XDG_DATA_HOME", relative);
    EXPECT_EQ(defaultDataDirectory(), "/me/.local/share");
  }
  for (const Variable& relative : {Variable(), Variable("me")}) {
    set("HOME", relative);
    EXPECT_TRUE(defaultDataDirectory().is_absolute());
    EXPECT_TRUE(defaultDataDirectory().string().ends_with("/.local/share"));
  }
  set("XDG_DATA_HOME", "/data");
  EXPECT_EQ(defaultDataDirectory(), "/data");
  set("XDG_DATA_HOME", {});
  set("HOME", home);
}

TEST(PathsTest, DocumentsDirectoryIsAbsoluteAndTheOwnersAlone) {
  setDocumentsDirectory({});
  const auto usual = documentsDirectory();
  EXPECT_TRUE(usual.starts_with("/") && usual.ends_with("/marbleway/" + executableName()));

  const marbleway::testing::TemporaryDirectory folder;
  const auto before = fs::current_path();
  fs::current_path(folder.path());
  setDocumentsDirectory("deep/down/");
  fs::current_path(before);
  EXPECT_EQ(documentsDirectory(), (folder.path() / "deep/down").string());
  makeDocumentsDirectory();
  EXPECT_TRUE(fs::equivalent(documentsDirectory(), folder.path() / "deep/down"));
  EXPECT_EQ(fs::status(folder.path() / "deep/down").permissions(), fs::perms::owner_all);
  setDocumentsDirectory({});
  EXPECT_EQ(documentsDirectory(), usual);
}

}  // namespace
}  // namespace marbleway::platform
