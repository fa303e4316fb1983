#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace httplib {
class Server;
}  // namespace httplib

namespace marbleway::stress {

/// How many rows a document holds by array.
using Counts = std::map<std::string, std::size_t, std::less<>>;

/// Reads a batch document by another reader than the library's. Throws at a fault.
Counts countsOf(const std::string& document);

/// A server on a free port of 127.0.0.1. It accepts every project and answers a batch by `status`
/// after it has read the document. Thread: any.
class Server {
 public:
  Server();
  /// Speaks TLS and answers 50 ms late. Makes its certificate, which nobody else vouches for, in
  /// `directory`.
  explicit Server(const std::filesystem::path& directory);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server();

  std::string url() const;
  /// What the latest document held, and the first fault.
  Counts latest() const;
  std::string fault() const;

  std::atomic<int> status{200};
  std::atomic<std::size_t> documents{0};

 private:
  void listen(std::chrono::milliseconds delay);
  void read(const std::string& document);

  std::string scheme_ = "http";
  std::unique_ptr<httplib::Server> server_;
  int port_ = 0;
  std::thread listening_;
  mutable std::mutex mutex_;  // on what follows
  Counts latest_;
  std::string fault_;
};

}  // namespace marbleway::stress
