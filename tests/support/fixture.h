#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/testing/fake_time.h"
#include "Marbleway/platform/testing/fixed_device.h"
#include "Marbleway/platform/testing/held_http.h"
#include "Marbleway/platform/testing/memory_defaults.h"
#include "Marbleway/platform/testing/recording_console.h"
#include "Marbleway/platform/testing/recording_location.h"
#include "Marbleway/store/schema.h"

namespace marbleway::testing {

namespace fakes = platform::testing;

/// A folder of its own in `parent`, removed with this object.
class TemporaryDirectory {
 public:
  explicit TemporaryDirectory(
      const std::filesystem::path& parent = std::filesystem::temp_directory_path());
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory();

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// Runs `sql` on the file at `path` and hands out its rows, columns joined by "|", NULL as "NULL".
std::vector<std::string> query(const std::filesystem::path& path, const std::string& sql);

/// The library as a fresh process finds it, on a fresh device of fakes: virtual time, a network in
/// the test's hand, a real SQLite directory. Identifiers count up from 1; the first is the session
/// that start-up makes.
class World {
 public:
  static constexpr const char* kFirstSession = "00000000-0000-0000-0000-000000000001";
  static constexpr const char* kStart = "2026-01-02 00:00:00.000";

  /// The stores stand in a folder in `parent`.
  explicit World(const std::filesystem::path& parent = std::filesystem::temp_directory_path());
  World(const World&) = delete;
  World& operator=(const World&) = delete;
  ~World();

  /// Starts with the options of `initMarbleway` alone and lets the server accept the project: a
  /// session of 300 s runs, nothing is private, and the lines so far are dropped.
  void beginSession();
  /// Answers the oldest request and runs what that posted to the main loop.
  void answer(long status, std::string body = "{}");
  /// Ends the oldest request without an answer and runs what that posted to the main loop.
  void failRequest();

  std::filesystem::path storePath(Store store = Store::event) const;
  /// The rows of a table without their ids, columns joined by "|", NULL as "NULL".
  std::vector<std::string> rows(const std::string& table) const;
  /// The number of rows of all sixteen tables.
  int rowCount() const;
  /// Deletes the rows of all tables.
  void deleteRows() const;
  /// The lines since the last call.
  std::vector<std::string> lines() { return console->take(); }

  TemporaryDirectory directory;
  std::shared_ptr<fakes::FakeTime> time = std::make_shared<fakes::FakeTime>();
  std::shared_ptr<fakes::HeldHttp> http = std::make_shared<fakes::HeldHttp>();
  std::shared_ptr<fakes::RecordingConsole> console = std::make_shared<fakes::RecordingConsole>();
  std::shared_ptr<fakes::MemoryDefaults> defaults = std::make_shared<fakes::MemoryDefaults>();
  std::shared_ptr<fakes::FixedDevice> device = std::make_shared<fakes::FixedDevice>();
  std::shared_ptr<fakes::RecordingLocation> location = std::make_shared<fakes::RecordingLocation>();
};

/// A test in a world of its own.
class MarblewayTest : public ::testing::Test, public World {};

/// A running session whose rows so far are deleted.
class RecordingTest : public MarblewayTest {
 protected:
  void SetUp() override {
    beginSession();
    deleteRows();
  }
};

}  // namespace marbleway::testing
