#pragma once

#include <gmock/gmock.h>
#include <httplib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "tests/support/fixture.h"
#include "tools/collector/collector.h"

namespace collector {

inline constexpr auto kInit = "/v2/mobile/init";
inline constexpr auto kBatch = "/v2/mobile/batch";
inline const httplib::Headers kHeaders{{"Accept", "application/json"},
                                       {"mrbw-project-token", "T-2"}};

/// A batch document with `rows` under `kind` and fifteen empty arrays.
inline std::string batch(const std::string& kind, const std::string& rows) {
  std::string document;
  for (const Kind& each : kKinds) {
    document += document.empty() ? "{\"BatchData\": {" : ", ";
    document.append("\"").append(each.name()).append("\": [");
    document.append(each.name() == kind ? rows : "").append("]");
  }
  return document + "}}\n";
}

inline std::string event(const std::string& id, const std::string& name = "opened",
                         const std::string& time = "2026-01-02 00:00:00.005") {
  return R"({"id": ")" + id + R"(", "SessionID": "S", "EventName": ")" + name +
         R"(", "EventAttributes": "", "UTCTimeStamp": ")" + time + "\"}";
}

class CollectorTest : public testing::Test {
 protected:
  CollectorTest() {
    settings.dataFile = directory_.path() / "data.sqlite";
    settings.tokens = {"T-1", "T-2"};
  }

  /// The server, under `settings`; an earlier one ends first.
  void start() {
    server.reset();
    log_.str("");
    server = std::make_unique<Collector>(settings, log_);
  }

  httplib::Client client() const {
    httplib::Client client("127.0.0.1", server->port());
    client.set_read_timeout(20);
    return client;
  }

  /// "status body" of the answer to a request like "GET /api/rows".
  std::string ask(const std::string& line, const std::string& body = "",
                  const httplib::Headers& headers = kHeaders) const {
    httplib::Request request;
    request.method = line.substr(0, line.find(' '));
    request.path = line.substr(line.find(' ') + 1);
    request.headers = headers;
    request.body = body;
    if (request.method != "GET") request.set_header("Content-Type", "application/json");
    const auto answer = client().send(request);
    return answer ? std::to_string(answer->status) + " " + answer->body : "no answer";
  }

  /// The end of the line that a POST of `body` leaves in the log.
  std::string send(const std::string& path, const std::string& body,
                   const httplib::Headers& headers = kHeaders) {
    log_.str("");
    answer_ = ask("POST " + path, body, headers);
    const std::string start = "POST " + path + " ", line = log_.str();
    EXPECT_THAT(line, testing::StartsWith(start + answer_.substr(0, 3)));
    return line.substr(start.size(), line.find('\n') - start.size());
  }

  /// The rows that `sql` finds, columns joined by "|".
  std::vector<std::string> find(const std::string& sql) const {
    return marbleway::testing::query(settings.dataFile, sql);
  }

  std::string write(const std::string& text) const {
    const std::filesystem::path file = directory_.path() / "file";
    std::ofstream(file) << text;
    return file;
  }

  marbleway::testing::TemporaryDirectory directory_;
  Settings settings;
  std::string answer_;  // to the last `send`
  std::ostringstream log_;
  std::unique_ptr<Collector> server;
};

}  // namespace collector
