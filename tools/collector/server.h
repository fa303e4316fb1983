#pragma once

#include <httplib.h>

#include <atomic>
#include <future>
#include <string>

#include "tools/collector/connection.h"
#include "tools/collector/notifier.h"

namespace collector {

/// An HTTP server on one port, with a Connection for each request. Routes are those of its base.
class Server : public httplib::Server {
 public:
  /// `notifier` reports the end of the collector.
  explicit Server(const Notifier& notifier) : notifier_(notifier) {}
  ~Server() override { stopAccepting(); }

  /// Binds to `port`, 0 for a free one, and returns it; throws std::runtime_error when it cannot be
  /// used.
  int listenOn(const std::string& host, int port);
  /// Takes requests from here on, on threads of its own.
  void start();
  /// Answers the requests that have arrived and takes no more.
  void stopAccepting();
  /// Whether requests can no longer be taken though nobody has asked for that.
  bool hasFailed() const { return failed_; }

 private:
  void acceptAll();
  void serve(int socket);

  const Notifier& notifier_;
  std::atomic<bool> stopping_{false}, failed_{false};
  std::future<void> accepting_;
};

}  // namespace collector
