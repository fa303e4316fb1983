#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/platform/testing/memory_defaults.h"
#include "Marbleway/store/store.h"
#include "bench/bare.h"
#include "bench/measure.h"
#include "bench/setting.h"
#include "tests/support/loopback_server.h"

namespace marbleway::bench {
namespace {

constexpr int kBlocks = 7;
constexpr int kOperations = 20;

void start() { Marbleway::initMarbleway("bench", {{"LoggingEnabled", false}}); }

// Adds a row of the year 2020 to each table.
void addOldRows(const std::string& events, const std::string& network) {
  std::string sql;
  for (const Table& table : kTables) {
    const std::string row = std::string("INSERT INTO ")
                                .append(table.name)
                                .append(" (UTCTimeStamp) VALUES ('2020-01-01 00:00:00.000')");
    const std::string& file = table.store == Store::event ? events : network;
    if (bareRun(file.c_str(), row.c_str(), nullptr, 0) == 0) {
      throw std::runtime_error("no old row was added");
    }
  }
}

// Start-ups without a response, so that none uploads. With `old`, every table has a row to purge.
void compareStartUps(const std::string& name, const BareStores& bare, bool old) {
  const std::string events = pathOf(Store::event), network = pathOf(Store::network);
  Operation ours{.run = start}, theirs{.run = [&] { bare.purge(); }};
  if (old) {
    ours.prepare = [&] { addOldRows(events, network); };
    theirs.prepare = [&] { addOldRows(bare.file(Store::event), bare.file(Store::network)); };
  }
  print(name, 1.1, compare(kBlocks, kOperations, ours, theirs));
}

void measureWith(const std::filesystem::path& place, const std::string& suffix,
                 const platform::Platform& replacement) {
  const WorkDirectory directory(place);
  startLibrary(directory.path(), NoNetwork::Handshake::unanswered, replacement);
  const BareStores bare(directory.path());
  compareStartUps("start-up, nothing to purge" + suffix, bare, false);
  compareStartUps("start-up, 16 rows to purge" + suffix, bare, true);
}

// Start-up's change of the settings file: a new session identifier, on disk.
void measureSettings(const std::filesystem::path& place) {
  const WorkDirectory directory(place);
  startLibrary(directory.path(), NoNetwork::Handshake::unanswered);
  const auto settings = platform::current()->userDefaults;
  int number = 0;
  const Spread time =
      measure(kBlocks, kOperations, {.run = [&] {
                settings->setText("Marbleway_SharedSessionID", std::to_string(++number));
                settings->synchronize();
              }});
  print({.name = "writing the settings file, alone",
         .ours = duration(time.median),
         .note = duration(time.least).append(" to ").append(duration(time.most))});
}

// Replaces a file as durably as the stores: written aside, forced to the disk, renamed.
void replaceFile(const std::filesystem::path& directory) {
  const std::string aside = directory / "bare-new", place = directory / "bare-settings";
  const int file = open(aside.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0600);
  const int folder = open(directory.c_str(), O_RDONLY | O_CLOEXEC);
  const std::string text(300, 'x');
  const bool isReplaced = write(file, text.data(), text.size()) > 0 && fsync(file) == 0 &&
                          std::rename(aside.c_str(), place.c_str()) == 0 && fsync(folder) == 0;
  close(file);
  close(folder);
  if (!isReplaced) throw std::runtime_error("no file was replaced");
}

// The first start-up of a process, with the library's own services, existing stores and a server
// that refuses the connection. Each time is taken in a new process.
void measureFirstStart(const std::filesystem::path& place) {
  constexpr int kRounds = 100;
  const WorkDirectory directory(place);
  const tests::RefusingPort nobody;
  const auto start = [] {
    Marbleway::initMarbleway("bench", {{"LoggingEnabled", false}, {"SDKEnvironment", 1}});
  };
  configure({.documentsDirectory = directory.path(), .developmentURL = nobody.url()});
  inOwnProcess(start);  // makes the stores
  const BareStores bare(directory.path());
  const auto purge = [&] {
    bare.purge();
    replaceFile(directory.path());
  };
  std::vector<double> ours, theirs;
  for (int round = 0; round < kRounds; ++round) {
    ours.push_back(inChild([&] { return std::vector{timed({.run = start})}; }).at(0));
    theirs.push_back(inChild([&] { return std::vector{timed({.run = purge})}; }).at(0));
  }
  print("the first start-up in a process, in memory", 1.05,
        {spreadOf(std::move(ours)), spreadOf(std::move(theirs))});
}

}  // namespace

void measureStartUp(const Places& places) {
  inOwnProcess([&] { measureWith(places.disk, "", {}); });
  inOwnProcess([&] { measureSettings(places.disk); });
  inOwnProcess([&] {
    platform::Platform forgetful;
    forgetful.userDefaults = std::make_shared<platform::testing::MemoryDefaults>();
    measureWith(places.disk, ", no settings file", forgetful);
  });
  measureFirstStart(places.memory);
}

}  // namespace marbleway::bench
