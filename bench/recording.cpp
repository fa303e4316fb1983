#include <iterator>
#include <stdexcept>

#include "Marbleway/Marbleway.h"
#include "Marbleway/store/statement.h"
#include "bench/bare.h"
#include "bench/measure.h"
#include "bench/setting.h"

namespace marbleway::bench {
namespace {

constexpr const char* kInsert =
    "insert into mrbw_v2_events (SessionID, EventName, EventAttributes, UTCTimeStamp) VALUES (?, ?, ?, ?)";

// As an application records it: its dictionary is made anew for each call.
void trackPurchase() {
  Marbleway::trackEvent("Purchase", {{"Value", 12.5},
                                     {"currency", "EUR"},
                                     {"quantity", 3},
                                     {"category", "books"},
                                     {"gift", true},
                                     {"tags", Array{"new", "blue"}},
                                     {"seller", Dictionary{{"id", 7}}}});
}

void measureIn(const std::filesystem::path& place, const std::string& name, double goal) {
  const WorkDirectory directory(place);
  startLibrary(directory.path(), NoNetwork::Handshake::unanswered);
  const std::string bareFile = BareStores(directory.path()).file(Store::event);
  constexpr int kBlocks = 9;
  constexpr int kOperations = 50;
  const auto comparison =
      compare(kBlocks, kOperations, {.run = trackPurchase},
              {.run = [&] { return bareRun(bareFile.c_str(), kInsert, std::data(kEventRow), 4); }});
  constexpr long kRows = 1L * kBlocks * (kOperations + kOperations / 10);
  for (const std::string& file : {pathOf(Store::event).string(), bareFile}) {
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
