#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tools/collector/kinds.h"

namespace httplib {
class Server;
class SSLServer;
}  // namespace httplib

namespace marbleway::stress {

/// How many rows a document holds of each kind, in the order of `collector::kKinds`.
using Counts = std::array<std::size_t, collector::kKinds.size()>;

/// The place of the kind of that name among them.
std::size_t kindNamed(std::string_view name);

/// Reads a document by a strict reader that shares nothing with the library. Throws at a fault.
Counts countsOf(std::string document);

/// Accepts every project, and answers batches by `status` once their documents have been read and
/// found valid. Thread: any.
class BatchServer {
 public:
  BatchServer();
  BatchServer(const BatchServer&) = delete;
  BatchServer& operator=(const BatchServer&) = delete;
  ~BatchServer();

  std::string url() const;
  void answerBatchesBy(int status) { status_ = status; }

  /// How many documents have come, what the latest held, and the first fault.
  std::size_t documents() const;
  Counts latest() const;
  std::string fault() const;

 private:
  void take(const std::string& document);

  const std::unique_ptr<httplib::Server> server_;
  int port_ = 0;
  std::thread listening_;
  std::atomic<int> status_{200};

  mutable std::mutex mutex_;  // on what follows
  std::size_t documents_ = 0;
  Counts latest_{};
  std::string fault_;
};

/// Speaks TLS, and answers each request late. Its certificate is vouched for by the file
/// `authorities` and by nobody else. Thread: any.
class TLSServer {
 public:
  /// Makes the file in `directory`.
  explicit TLSServer(const std::filesystem::path& directory);
  TLSServer(const TLSServer&) = delete;
  TLSServer& operator=(const TLSServer&) = delete;
  ~TLSServer();

  std::string url() const;
  const std::filesystem::path& authorities() const { return authorities_; }
  /// How many requests have come whole.
  std::size_t requests() const { return requests_; }

 private:
  const std::filesystem::path authorities_;
  const std::unique_ptr<httplib::SSLServer> server_;
  int port_ = 0;
  std::thread listening_;
  std::atomic<std::size_t> requests_{0};
};

}  // namespace marbleway::stress
