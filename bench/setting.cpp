#include "bench/setting.h"

#include <array>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/manual_loop.h"
#include "Marbleway/store/store.h"
#include "bench/bare.h"

namespace marbleway::bench {

const char* const kEventRow[4] = {
    "D53821EE-E775-4F44-87C4-66EACD125EA9", "Purchase",
    R"({"Value":12.5,"currency":"EUR","quantity":3,"category":"books","gift":true,"tags":["new","blue"],"seller":{"id":7}})",
    "2026-01-02 00:00:00.005"};

void trackPurchase() {
  Marbleway::trackEvent("Purchase", {{"Value", 12.5},
                                     {"currency", "EUR"},
                                     {"quantity", 3},
                                     {"category", "books"},
                                     {"gift", true},
                                     {"tags", Array{"new", "blue"}},
                                     {"seller", Dictionary{{"id", 7}}}});
}

void addBareEvent(const std::string& file) {
  constexpr const char* kInsert =
      "insert into mrbw_v2_events (SessionID, EventName, EventAttributes, UTCTimeStamp) VALUES (?, ?, ?, ?)";
  bareRun(file.c_str(), kInsert, std::data(kEventRow), 4);
}

void NoNetwork::post(platform::HttpRequest request,
                     std::function<void(std::optional<platform::HttpResponse>)> done) {
  if (request.url.ends_with("mobile/batch")) {
    documentBytes_ = request.body.size();
  } else if (handshake_ == Handshake::answered) {
    std::thread([&] { done(platform::HttpResponse{.status = 200, .body = "{}"}); }).join();
  }
}

std::shared_ptr<NoNetwork> startLibrary(const std::filesystem::path& directory,
                                        NoNetwork::Handshake handshake,
                                        platform::Platform replacement) {
  auto network = std::make_shared<NoNetwork>(handshake);
  replacement.httpClient = network;
  replacement.mainLoop = std::make_shared<platform::ManualLoop>();
  platform::install(std::move(replacement));
  Configuration host;
  host.documentsDirectory = directory;
  configure(std::move(host));
  Marbleway::initMarbleway("bench", {{"LoggingEnabled", false}});
  return network;
}

BareStores::BareStores(std::filesystem::path directory) : directory_(std::move(directory)) {
  for (const Store store : {Store::event, Store::network}) {
    std::filesystem::copy_file(pathOf(store), file(store));
  }
}

std::string BareStores::file(Store store) const {
  return directory_ / (store == Store::event ? "bare-events.sqlite" : "bare-network.sqlite");
}

long BareStores::readAll() const {
  long rows = 0;
  for (const Table& table : kTables) {
    const std::string sql = std::string("SELECT * FROM ").append(table.name);
    rows += bareRead(file(table.store).c_str(), sql.c_str());
  }
  return rows;
}

void BareStores::purge() const {
  for (const Table& table : kTables) {
    const std::string sql = std::string("DELETE FROM ")
                                .append(table.name)
                                .append(" WHERE UTCTimeStamp <= date('now','-30 day')");
    if (bareRun(file(table.store).c_str(), sql.c_str(), nullptr, 0) == 0) {
      throw std::runtime_error("the bare purge failed");
    }
  }
}

void addEvents(const std::string& file, int count) {
  const std::string sql =
      "WITH RECURSIVE numbers(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM numbers WHERE n < " +
      std::to_string(count) +
      ") INSERT INTO mrbw_v2_events SELECT NULL, ?1, ?2, ?3, strftime('%Y-%m-%d %H:%M:%f', 'now') FROM numbers";
  if (bareRun(file.c_str(), sql.c_str(), std::data(kEventRow), 3) == 0) {
    throw std::runtime_error("no rows were added");
  }
}

}  // namespace marbleway::bench
