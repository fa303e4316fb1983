#pragma once

#include <gmock/gmock.h>
#include <httplib.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "tools/collector/collector.h"

namespace collector {

inline constexpr auto kInit = "/v2/mobile/init";
inline constexpr auto kBatch = "/v2/mobile/batch";
inline const httplib::Headers kHeaders{{"Accept", "application/json"},
                                       {"mrbw-project-token", "T-2"}};

/// A batch document with `rows` under `kind` and fifteen empty arrays.
inline std::string batch(const std::string& kind, const std::string& rows) {
  std::string document;
  for (const char* each :
       {"Sessions", "Users", "UserAttributes", "Companies", "CompanyAttributes", "Events",
        "ScreenViews", "Crashes", "Errors", "NetworkRequests", "CPUUsage", "MEMUsage",
        "BatteryUsage", "Ads", "Messages", "DeepLinks"}) {
    document += document.empty() ? "{\"BatchData\": {" : ", ";
    document.append("\"").append(each).append("\": [").append(each == kind ? rows : "").append("]");
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
    std::string pattern = testing::TempDir() + "collector-XXXXXX";
    directory_ = mkdtemp(pattern.data());
    settings.dataFile = directory_ / "data.sqlite";
    settings.tokens = {"T-1", "T-2"};
  }
  ~CollectorTest() override {
    server.reset();
    std::filesystem::remove_all(directory_);
  }

  /// The server, under `settings`; an earlier one ends first.
  void start() {
    server.reset();
    server = std::make_unique<Collector>(settings, log_);
    lastLine();
  }

  /// The status of the answer and the one line that the request left.
  std::string send(const std::string& path, const std::string& body,
                   const httplib::Headers& headers = kHeaders) {
    httplib::Client client("127.0.0.1", server->port());
    client.set_read_timeout(120);
    const auto answer = client.Post(path, headers, body, "application/json");
    if (!answer) return "no answer: " + httplib::to_string(answer.error());
    body_ = answer->body;
    const std::string line = lastLine();
    EXPECT_THAT(line, testing::StartsWith("POST " + path + " " + std::to_string(answer->status)));
    return line.substr(std::min(line.size(), path.size() + 6));
  }

  httplib::Client client() const {
    httplib::Client client("127.0.0.1", server->port());
    client.set_read_timeout(20);
    return client;
  }

  std::string lastLine() {
    const std::string lines = log_.str();
    log_.str("");
    return lines.substr(0, lines.find('\n'));
  }

  /// The rows that `sql` finds, each as a|b|c and a line's end.
  std::string find(const std::string& sql) {
    const auto add = [](void* rows, int count, char** texts, char**) {
      for (int i = 0; i < count; ++i) {
        static_cast<std::string*>(rows)->append(texts[i]).append(i + 1 < count ? "|" : "\n");
      }
      return 0;
    };
    std::string rows;
    sqlite3* database = nullptr;
    sqlite3_open(settings.dataFile.c_str(), &database);
    EXPECT_EQ(sqlite3_exec(database, sql.c_str(), add, &rows, nullptr), SQLITE_OK) << sql;
    sqlite3_close(database);
    return rows;
  }

  std::string write(const std::string& text) {
    const std::filesystem::path file = directory_ / "config.json";
    std::ofstream(file) << text;
    return file;
  }

  Settings settings;
  std::unique_ptr<Collector> server;
  std::string body_;
  std::ostringstream log_;
  std::filesystem::path directory_;
};

}  // namespace collector
