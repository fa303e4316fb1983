#pragma once

#include <httplib.h>

#include <atomic>
#include <future>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

#include "tools/collector/data_file.h"

namespace collector {

struct Settings {
  std::string host = "127.0.0.1";
  int port = 0;  // 0: a free one
  std::string dataFile;
  std::string configFile;  // empty: the default configuration
  std::vector<std::string> tokens;
  int failBatches = 0;  // how many batches are refused before the first is taken
};

/// The collection server on one port, from construction to destruction.
///
/// Each request leaves one line in `log`, written before its answer is sent. Requests overlap.
class Collector {
 public:
  /// Returns when requests are taken and the first line of `log` tells the address; throws
  /// std::runtime_error when a file or the port cannot be used.
  Collector(const Settings& settings, std::ostream& log);
  /// Answers the requests that have arrived; takes no more.
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  int port() const { return port_; }

 private:
  /// Reads a body into `entry` and makes the answer's body; throws a Refusal.
  using Handler = std::string (Collector::*)(std::string& document, Entry& entry);

  void route();
  void post(const char* path, std::size_t longest, Handler handler);
  std::string receive(const httplib::Request& request, const httplib::ContentReader& read,
                      std::size_t longest, Entry& entry) const;
  std::string handshake(std::string& document, Entry& entry);
  std::string batch(std::string& document, Entry& entry);
  void turnAway(const httplib::Request& request, httplib::Response& response);
  void conclude(const Entry& entry, httplib::Response& response, const std::string& body);
  void print(const std::string& line);
  int bind(const std::string& host, int port);

  const std::vector<std::string> tokens_;
  const std::string handshakeAnswer_;
  DataFile data_;
  std::atomic<int> failuresLeft_;
  std::mutex logMutex_;
  std::ostream& log_;
  httplib::Server server_;
  int port_ = 0;
  std::future<bool> listening_;  // ready once no more requests are taken
};

}  // namespace collector
