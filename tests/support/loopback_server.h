#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/socket.h"

namespace marbleway::tests {

/// A request as it came over the wire.
struct Received {
  std::string head;  // every byte up to the body: request line, headers, blank line
  std::string body;
};

/// How an answer comes over the wire.
enum class Manner {
  whole,     // and then an orderly close
  never,     // the request is read and the connection kept
  trickled,  // byte by byte, one in ten milliseconds
  endless,   // again and again
};

struct Answer {
  int status = 200;
  Manner manner = Manner::whole;
  std::string body = {};
  std::string raw = {};  // sent as it stands in place of status and body, if not empty
};

/// A socket on a free port of 127.0.0.1; until something listens on it, it refuses every
/// connection.
class RefusingPort {
 public:
  RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;
  ~RefusingPort();

  /// "127.0.0.1:PORT".
  std::string host() const;
  /// "http://127.0.0.1:PORT/v2/".
  std::string url(std::string_view scheme = "http") const;

 protected:
  Socket socket_;
};

/// A real HTTP server: one request a connection, each connection on a thread of its own. It stops
/// at once when it is destroyed, whatever is going on. Thread: any.
class LoopbackServer : public RefusingPort {
 public:
  /// Answers every request by `answer`.
  explicit LoopbackServer(const Answer& answer = {});
  ~LoopbackServer();

  /// Answers by `respond` from now on. It runs on the connection's thread, when the request counts
  /// already, and may wait for what it likes.
  void answerWith(std::function<Answer(const Received&)> respond);

  std::vector<Received> requests() const { return waitForRequests(0); }
  /// Waits ten seconds at most until `count` requests have come whole; gives those that have.
  std::vector<Received> waitForRequests(std::size_t count) const;

 private:
  void listen();
  void serve(Socket socket);

  std::atomic<bool> isStopping_{false};
  mutable std::mutex mutex_;  // on what follows
  mutable std::condition_variable changed_;
  std::function<Answer(const Received&)> respond_;
  std::vector<Received> requests_;
  std::set<Socket> open_;  // the connections' sockets

  std::list<std::jthread> serving_;  // one a connection
  std::thread listening_;
};

}  // namespace marbleway::tests
