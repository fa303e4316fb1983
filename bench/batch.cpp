#include "Marbleway/upload/batch.h"

#include <stdexcept>

#include "Marbleway/store/store.h"
#include "bench/bare.h"
#include "bench/measure.h"
#include "bench/setting.h"

namespace marbleway::bench {
namespace {

constexpr int kRows = 100'000;
constexpr int kTenTimes = 1'000'000;

struct Memory {
  double resident;  // the most, less what it was before the batch
  double document;
};

Memory memoryOfBatch(const std::filesystem::path& directory) {
  const auto numbers = inChild([&] {
    const auto network = startLibrary(directory, NoNetwork::Handshake::answered);
    const double before = residentBytes();
    batchData();
    return std::vector{mostResidentBytes() - before, static_cast<double>(network->documentBytes())};
  });
  return {numbers.at(0), numbers.at(1)};
}

void printMemory(const std::string& name, const Memory& memory) {
  const double ratio = memory.resident / memory.document;
  print({.name = name,
         .goal = "1.15 bytes a byte",
         .ours = number(memory.resident / 1e6, " MB"),
         .ratio = number(ratio),
         .met = metIf(ratio <= 1.15),
         .note = number(memory.document / 1e6, " MB of document")});
}

// Adds one event whose attributes are a text of 260 MB.
void addLongEvent(const std::filesystem::path& directory) {
  inChild([&] {
    startLibrary(directory, NoNetwork::Handshake::unanswered);
    constexpr const char* kInsert =
        "INSERT INTO mrbw_v2_events VALUES (NULL, 'S', 'long', printf('%.*c', 260000000, 'x'), strftime('%Y-%m-%d %H:%M:%f', 'now'))";
    if (bareRun(pathOf(Store::event).c_str(), kInsert, nullptr, 0) == 0) {
      throw std::runtime_error("no row was added");
    }
    return std::vector<double>();
  });
}

// Times both sides with that number of rows, in microseconds.
Comparison timesOfBatch(const std::filesystem::path& directory, int rows, int blocks) {
  const auto numbers = inChild([&] {
    const auto network = startLibrary(directory, NoNetwork::Handshake::answered);
    const BareStores bare(directory);
    addEvents(pathOf(Store::event), rows);
    addEvents(bare.file(Store::event), rows);
    const auto result = compare(blocks, 1, {.run = batchData}, {.run = [&] {
                                  if (bare.readAll() != rows) {
                                    throw std::runtime_error("rows are missing");
                                  }
                                }});
    if (network->documentBytes() < static_cast<std::size_t>(rows)) {
      throw std::runtime_error("no document was made");
    }
    return std::vector{result.ours.median, result.ours.least, result.ours.most,
                       result.bare.median, result.bare.least, result.bare.most};
  });
  return {{numbers.at(0), numbers.at(1), numbers.at(2)},
          {numbers.at(3), numbers.at(4), numbers.at(5)}};
}

void measureNothingPending(const std::filesystem::path& place) {
  const WorkDirectory directory(place);
  startLibrary(directory.path(), NoNetwork::Handshake::answered);
  const BareStores bare(directory.path());
  print("batchData, nothing pending", 1.1,
        compare(9, 50, {.run = batchData}, {.run = [&] { bare.readAll(); }}));
}

}  // namespace

void measureBatches(const Places& places) {
  inOwnProcess([&] { measureNothingPending(places.disk); });

  const WorkDirectory few(places.disk);
  const WorkDirectory many(places.disk);
  const Comparison times = timesOfBatch(few.path(), kRows, 9);
  const Comparison tenTimes = timesOfBatch(many.path(), kTenTimes, 5);
  print("batchData, 100,000 events", 2.2, times);
  print("batchData, 1,000,000 events", 2.2, tenTimes);
  const double growth = tenTimes.ours.median / times.ours.median * kRows / kTenTimes;
  print({.name = "time a row, 1,000,000 against 100,000",
         .goal = "linear: 1.1",
         .ours = number(tenTimes.ours.median * 1000 / kTenTimes, " ns"),
         .ratio = number(growth),
         .met = metIf(growth <= 1.1),
         .note = number(times.ours.median * 1000 / kRows, " ns a row at 100,000")});
  printMemory("memory of the batch, 100,000 events", memoryOfBatch(few.path()));
  printMemory("memory of the batch, 1,000,000 events", memoryOfBatch(many.path()));
  const WorkDirectory one(places.disk);
  addLongEvent(one.path());
  printMemory("memory of the batch, one text of 260 MB", memoryOfBatch(one.path()));
}

}  // namespace marbleway::bench
