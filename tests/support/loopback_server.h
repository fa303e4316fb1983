#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace marbleway::tests {

using Headers = std::vector<std::pair<std::string, std::string>>;

/// A request as it came over the wire.
struct Received {
  std::string head;  // every byte up to the body: request line, headers, blank line
  std::string method;
  std::string path;
  Headers headers;  // in order
  std::string body;

  /// The value of the first header of that name, exactly so written; "" when there is none.
  std::string header(std::string_view name) const;
};

/// How an answer comes over the wire.
enum class Manner {
  whole,
  never,     // the request is read and the connection kept
  cut,       // half of it, then an orderly close
  reset,     // half of it, then a reset
  trickled,  // byte by byte, each after `pause`
};

struct Answer {
  int status = 200;
  Manner manner = Manner::whole;
  Headers headers = {};  // beside Content-Length
  std::string body = {};
  std::uint64_t times = 1;  // the body is sent that often: huge answers
  std::string raw = {};     // sent as it stands in place of all that, if not empty
  std::chrono::milliseconds pause{1};
};

inline Answer redirectTo(std::string url) {
  return {.status = 307, .headers = {{"Location", std::move(url)}}};
}

/// A real HTTP server on a free port of 127.0.0.1, each connection on a thread of its own. It
/// stops at once when it is destroyed, whatever is going on. Thread: any.
class LoopbackServer {
 public:
  LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;
  ~LoopbackServer();

  /// "http://127.0.0.1:PORT/v2/".
  std::string url(std::string_view scheme = "http") const;

  /// Answers the requests to come, in order; one that finds none left gets a 500.
  void answer(Answer next);
  /// Answers by `respond` what `answer` does not. It runs on the connection's thread, when the
  /// request counts already, and may wait for what it likes.
  void answerWith(std::function<Answer(const Received&)> respond);

  std::vector<Received> requests() const;
  /// Waits until `count` requests have come whole; gives those that have, fewer when time is over.
  std::vector<Received> waitForRequests(
      std::size_t count, std::chrono::milliseconds atMost = std::chrono::seconds(10)) const;
  /// Waits until `count` connections have been made, whatever has come over them.
  bool waitForConnections(std::size_t count,
                          std::chrono::milliseconds atMost = std::chrono::seconds(10)) const;

 private:
  class Connection;

  void listen();
  void serve(int socket);
  Answer answerTo(const Received& request);

  std::uint16_t port_ = 0;
  int listener_;
  int stopped_;  // readable once the server stops

  mutable std::mutex lock_;  // on what follows
  mutable std::condition_variable changed_;
  std::deque<Answer> answers_;
  std::function<Answer(const Received&)> respond_;
  std::vector<Received> requests_;
  std::size_t connections_ = 0;

  std::list<std::thread> serving_;  // the listener's own
  std::thread listening_;
};

/// A port of 127.0.0.1 that refuses every connection.
class RefusingPort {
 public:
  RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;
  ~RefusingPort();

  std::string url() const;

 private:
  std::uint16_t port_ = 0;
  int socket_;
};

}  // namespace marbleway::tests
