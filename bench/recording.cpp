#include <stdexcept>

#include "Marbleway/store/store.h"
#include "bench/bare.h"
#include "bench/measure.h"
#include "bench/setting.h"

namespace marbleway::bench {
namespace {

void measureIn(const std::filesystem::path& place, const std::string& name, double goal) {
  const WorkDirectory directory(place);
  startLibrary(directory.path(), NoNetwork::Handshake::unanswered);
  const std::string bareFile = BareStores(directory.path()).file(Store::event);
  constexpr int kBlocks = 9;
  constexpr int kOperations = 50;
  const auto comparison = compare(kBlocks, kOperations, {.run = trackPurchase},
                                  {.run = [&] { addBareEvent(bareFile); }});
  constexpr long kRows = 1L * kBlocks * (kOperations + kOperations / 10);
  for (const std::string& file : {pathOf(Store::event), bareFile}) {
    if (bareRead(file.c_str(), "SELECT * FROM mrbw_v2_events") != kRows) {
      throw std::runtime_error("rows are missing in " + file);
    }
  }
  print(name, goal, comparison);
}

}  // namespace

void measureRecording(const Places& places) {
  inOwnProcess([&] { measureIn(places.disk, "event, 7 attributes, on a disk", 0.4); });
  inOwnProcess([&] { measureIn(places.memory, "event, 7 attributes, in memory", 1.1); });
}

}  // namespace marbleway::bench
