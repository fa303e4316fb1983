#pragma once

#include <httplib.h>

#include <array>
#include <atomic>
#include <iosfwd>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tools/collector/page_api.h"
#include "tools/collector/records.h"
#include "tools/collector/server.h"
#include "tools/collector/settings.h"

namespace collector {

/// The collection server on one port, from construction to destruction.
///
/// Each request of the protocol is one line in `log`, written before its answer is sent. Requests
/// overlap.
class Collector {
 public:
  /// Returns when requests are taken; the first line of `log` has the address, the second the
  /// page's, a third those for other machines. Throws std::runtime_error when a file or the port
  /// cannot be used.
  Collector(const Settings& settings, std::ostream& log);
  /// Answers the requests that have arrived and takes no more. Streams and waits end.
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  int port() const { return port_; }
  /// Whether no more requests can be taken.
  bool hasFailed() const { return server_.hasFailed(); }

 private:
  /// One of the two requests of the protocol.
  struct Resource {
    const char* path;
    Request kind;
    Journal Records::*journal;
    std::size_t maxBytes;  // of the body, decoded
    /// Processes a body and returns the answer's; throws a Refusal.
    std::string (Collector::*process)(std::string& document, Entry& entry, Exchange& exchange);
  };
  static const std::array<Resource, 2> kResources;

  void route();
  void post(const Resource& resource);
  void answer(const Resource& resource, const httplib::Request& request,
              httplib::Response& response, const httplib::ContentReader& read);
  static std::string receive(const httplib::Request& request, const httplib::ContentReader& read,
                             std::size_t maxBytes, Entry& entry);
  std::string handshake(std::string& document, Entry& entry, Exchange& exchange);
  std::string batch(std::string& document, Entry& entry, Exchange& exchange);
  void write(Journal& journal, const Entry& entry, Exchange exchange, const std::string& answer);
  void delayOrReset(Fault fault);
  static bool isKnown(const httplib::Request& request);
  void reject(const httplib::Request& request, httplib::Response& response);
  void conclude(const Entry& entry, httplib::Response& response, const std::string& body);
  void printAddresses(const std::string& host, const std::string& query);
  void print(const std::string& line);

  const std::vector<std::string> tokens_;
  Records records_;
  std::atomic<int> failuresLeft_;
  std::mutex logMutex_;
  std::ostream& log_;
  Slots delays_{16};
  std::optional<PageApi> page_;
  Server server_{records_.notifier};
  int port_ = 0;
};

}  // namespace collector
