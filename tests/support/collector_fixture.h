#pragma once

#include <gmock/gmock.h>
#include <httplib.h>

#include <map>
#include <sstream>

#include "tests/support/fixture.h"
#include "tools/collector/collector.h"

namespace collector {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

inline constexpr auto kInit = "POST /v2/mobile/init";
inline constexpr auto kBatch = "POST /v2/mobile/batch";
inline constexpr auto kHandshake = R"({"OS": "iOS", "BundleID": "b"})";
inline const httplib::Headers kHeaders{{"Accept", "application/json"},
                                       {"mrbw-project-token", "T-2"}};

/// A row of a kind with these members; the others are empty.
inline std::string row(std::string_view kind,
                       const std::map<std::string_view, std::string>& texts) {
  std::string row;
  for (const std::string_view key : kindNamed(kind)->keys()) {
    const auto text = texts.find(key);
    row.append(row.empty() ? "{\"" : ", \"").append(key).append("\": \"");
    row.append(text == texts.end() ? "" : text->second).append("\"");
  }
  return row + "}";
}
inline std::string event(const std::string& id, const std::string& name = "opened",
                         const std::string& time = "2026-01-02 00:00:00.005") {
  return row("Events",
             {{"id", id}, {"SessionID", "S"}, {"EventName", name}, {"UTCTimeStamp", time}});
}

/// A batch document with `rows` under `kind` and fifteen empty arrays.
inline std::string batch(std::string_view kind, const std::string& rows) {
  std::string document = R"({"BatchData": {)";
  for (const Kind& each : kKinds) {
    document.append(&each == kKinds.data() ? "\"" : ", \"").append(each.name()).append("\": [");
    document.append(each.name() == kind ? rows : "").append("]");
  }
  return document + "}}\n";
}

/// A request like "GET /api/rows", and "status text" of its answer.
struct Call {
  std::string line, answer, body{};
  httplib::Headers headers = kHeaders;
};

class CollectorTest : public testing::Test {
 protected:
  /// The server, under `settings`; an earlier one ends first.
  void start() {
    server.reset();
    log_.str("");
    server = std::make_unique<Collector>(settings, log_);
  }

  httplib::Client client() const {
    httplib::Client client("127.0.0.1", server->port());
    client.set_read_timeout(timeout_);
    return client;
  }

  /// "status body" of the answer; of the document about an error only its text.
  std::string ask(const std::string& line, const std::string& body = "",
                  const httplib::Headers& headers = kHeaders) const {
    httplib::Request request;
    request.method = line.substr(0, line.find(' '));
    request.path = line.substr(line.find(' ') + 1);
    request.headers = headers;
    request.body = body;
    if (request.method != "GET") request.set_header("Content-Type", "application/json");
    const auto answer = client().send(request);
    if (!answer) return "no answer";
    std::string text = answer->body;
    if (text.starts_with(R"({"error":")")) std::erase(text.erase(0, 10), '\\');
    return std::to_string(answer->status) + " " + text;
  }
  /// Checks each status, and that the answer contains the text.
  void talk(const std::vector<Call>& calls) const {
    for (const auto& [line, expected, body, headers] : calls) {
      const std::string answer = ask(line, body, headers);
      EXPECT_THAT(answer.substr(0, 4), expected.substr(0, 4)) << line << body.substr(0, 200);
      EXPECT_THAT(answer, HasSubstr(expected.substr(4))) << line << body.substr(0, 200);
    }
  }

  /// The rows that `sql` finds, columns joined by "|".
  std::vector<std::string> find(const std::string& sql) const {
    return marbleway::testing::query(settings.dataFile, sql);
  }

  marbleway::testing::TemporaryDirectory directory_;
  Settings settings{.dataFile = directory_.path() / "data.sqlite", .tokens = {"T-1", "T-2"}};
  std::chrono::milliseconds timeout_{20'000};
  std::ostringstream log_;
  std::unique_ptr<Collector> server;
};

}  // namespace collector
