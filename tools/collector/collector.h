#pragma once

#include <httplib.h>

#include <array>
#include <atomic>
#include <future>
#include <iosfwd>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tools/collector/page_api.h"
#include "tools/collector/records.h"

namespace collector {

struct Settings {
  std::string host = "127.0.0.1";
  int port = 0;  // 0: a free one
  std::string dataFile;
  std::string configFile;  // empty: the default configuration
  std::vector<std::string> tokens;
  std::string pageToken;  // empty: one is made up where the page needs it
  int failBatches = 0;    // how many batches are refused before the first is taken
};

/// The collection server on one port, from construction to destruction.
///
/// Each request leaves one line in `log`, written before its answer is sent, unless the page's side
/// takes it. Requests overlap.
class Collector {
 public:
  /// Returns when requests are taken; the first line of `log` tells the address, the second the
  /// page's. Throws std::runtime_error when a file or the port cannot be used.
  Collector(const Settings& settings, std::ostream& log);
  /// Answers the requests that have arrived; takes no more. Streams and waits end.
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  int port() const { return port_; }

 private:
  /// One of the two requests of the protocol.
  struct Resource {
    const char* path;
    std::size_t longest;  // body, in bytes
    Request kind;
    Journal Records::*journal;
    /// Takes a body and makes the answer's; throws a Refusal.
    std::string (Collector::*take)(std::string& document, Entry& entry, Exchange& exchange);
  };
  static const std::array<Resource, 2> kResources;

  void route();
  void post(const Resource& resource);
  void answer(const Resource& resource, const httplib::Request& request,
              httplib::Response& response, const httplib::ContentReader& read);
  std::string receive(const httplib::Request& request, const httplib::ContentReader& read,
                      std::size_t longest, Entry& entry) const;
  std::string handshake(std::string& document, Entry& entry, Exchange& exchange);
  std::string batch(std::string& document, Entry& entry, Exchange& exchange);
  void write(Journal& journal, const Entry& entry, Exchange exchange, const std::string& answer);
  void delayOrReset(Fault fault, const httplib::Request& request);
  void reject(const httplib::Request& request, httplib::Response& response);
  void conclude(const Entry& entry, httplib::Response& response, const std::string& body);
  void print(const std::string& line);
  int bind(const std::string& host, int port);

  const std::vector<std::string> tokens_;
  Records records_;
  std::atomic<int> failuresLeft_;
  std::mutex logMutex_;
  std::ostream& log_;
  Places disturbed_{16};
  std::optional<PageApi> page_;
  httplib::Server server_;
  int port_ = 0;
  std::future<bool> listening_;  // ready once no more requests are taken
};

}  // namespace collector
