#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace marbleway::tests {

/// A request as it came over the wire.
struct Received {
  std::string head;  // every byte up to the body: request line, headers, blank line
  std::string body;
};

/// How an answer comes over the wire.
enum class Manner {
  whole,
  never,     // the request is read and the connection kept
  cut,       // half of it, then an orderly close
  reset,     // half of it, then a reset
  trickled,  // byte by byte, each after `pause`
  endless,   // the body again and again
};

struct Answer {
  int status = 200;
  Manner manner = Manner::whole;
  std::string headers = {};  // whole lines beside Content-Length
  std::string body = {};
  std::string raw = {};  // sent as it stands in place of all that, if not empty
  std::chrono::milliseconds pause{1};
};

/// A socket on a free port of 127.0.0.1; until something listens on it, it refuses every
/// connection.
class RefusingPort {
 public:
  RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;
  ~RefusingPort();

  /// "http://127.0.0.1:PORT/v2/".
  std::string url(std::string_view scheme = "http") const;

 protected:
  int socket_;
};

/// A real HTTP server: one request a connection, each connection on a thread of its own. It stops
/// at once when it is destroyed, whatever is going on. Thread: any.
class LoopbackServer : public RefusingPort {
 public:
  LoopbackServer();
  ~LoopbackServer();

  /// Answers the requests to come, in order; one that finds none left gets a 500.
  void answer(Answer next);
  /// Answers by `respond` what `answer` does not. It runs on the connection's thread, when the
  /// request counts already, and may wait for what it likes.
  void answerWith(std::function<Answer(const Received&)> respond);

  std::vector<Received> requests() const { return waitForRequests(0); }
  /// Waits ten seconds at most until `count` requests have come whole; gives those that have.
  std::vector<Received> waitForRequests(std::size_t count) const;
  /// Waits as long until `count` connections have been made, whatever has come over them.
  void waitForConnections(std::size_t count) const;

 private:
  void listen();
  void serve(int socket);
  Answer answerTo(const Received& request);

  mutable std::mutex mutex_;  // on what follows
  mutable std::condition_variable changed_;
  std::deque<Answer> answers_;
  std::function<Answer(const Received&)> respond_;
  std::vector<Received> requests_;
  std::set<int> open_;  // the connections' sockets

  std::list<std::thread> serving_;  // one a connection
  std::thread listening_;
};

}  // namespace marbleway::tests
