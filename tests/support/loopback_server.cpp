#include "tests/support/loopback_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <optional>
#include <system_error>

namespace marbleway::tests {
namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/// A socket bound to a free port of 127.0.0.1, which it puts in `port`.
int bindLoopback(std::uint16_t& port) {
  const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (made < 0 || bind(made, generic, size) != 0 || getsockname(made, generic, &size) != 0) {
    fail("no port on 127.0.0.1");
  }
  port = ntohs(address.sin_port);
  return made;
}

std::string urlOf(std::string_view scheme, std::uint16_t port) {
  return std::string(scheme).append("://127.0.0.1:").append(std::to_string(port)).append("/v2/");
}

/// Cuts the text up to `end`, and `end` itself, off the front of `text`.
std::string_view cutOff(std::string_view& text, std::string_view end) {
  const std::size_t at = text.find(end);
  const std::string_view front = text.substr(0, at);
  text.remove_prefix(at == std::string_view::npos ? text.size() : at + end.size());
  return front;
}

Received readHead(std::string head) {
  Received request;
  request.head = std::move(head);
  std::string_view rest = request.head;
  std::string_view line = cutOff(rest, "\r\n");
  request.method = cutOff(line, " ");
  request.path = cutOff(line, " ");
  while (!(line = cutOff(rest, "\r\n")).empty()) {
    const std::string_view name = cutOff(line, ":");
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    request.headers.emplace_back(name, line);
  }
  return request;
}

std::string headOf(const Answer& answer) {
  std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " Scripted\r\n";
  for (const auto& [name, value] : answer.headers) {
    head.append(name).append(": ").append(value).append("\r\n");
  }
  if (answer.status != 204) {
    const std::uint64_t length = answer.body.size() * answer.times;
    head.append("Content-Length: ").append(std::to_string(length)).append("\r\n");
  }
  return head.append("\r\n");
}

}  // namespace

std::string Received::header(std::string_view name) const {
  for (const auto& [each, value] : headers) {
    if (each == name) return value;
  }
  return {};
}

/// One connection, whose every wait ends when the server stops.
class LoopbackServer::Connection {
 public:
  Connection(int socket, int stopped) : socket_(socket), stopped_(stopped) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { close(socket_); }

  /// The next request; nothing once the peer has closed or the server stops.
  std::optional<Received> read();
  /// Sends `answer`. True when another request may follow.
  bool send(const Answer& answer);

 private:
  bool await(short events, int atMost = -1);
  bool receive();
  bool sendAll(std::string_view bytes);
  bool trickle(std::string_view bytes, std::chrono::milliseconds pause);
  void reset();

  int socket_;
  int stopped_;
  std::string unread_;
};

/// True once the socket is ready; false when the server stops or `atMost` milliseconds are over.
bool LoopbackServer::Connection::await(short events, int atMost) {
  std::array<pollfd, 2> waits{{{stopped_, POLLIN, 0}, {socket_, events, 0}}};
  return poll(waits.data(), waits.size(), atMost) > 0 && waits[0].revents == 0;
}

bool LoopbackServer::Connection::receive() {
  std::array<char, 65536> block;
  if (!await(POLLIN)) return false;
  const ssize_t got = recv(socket_, block.data(), block.size(), 0);
  if (got > 0) unread_.append(block.data(), static_cast<std::size_t>(got));
  return got > 0;
}

std::optional<Received> LoopbackServer::Connection::read() {
  constexpr std::string_view kBlankLine = "\r\n\r\n";
  while (unread_.find(kBlankLine) == std::string::npos) {
    if (!receive()) return std::nullopt;
  }
  const std::size_t headSize = unread_.find(kBlankLine) + kBlankLine.size();
  Received request = readHead(unread_.substr(0, headSize));
  const std::string length = request.header("Content-Length");
  std::size_t bodySize = 0;
  std::from_chars(length.data(), length.data() + length.size(), bodySize);
  while (unread_.size() < headSize + bodySize) {
    if (!receive()) return std::nullopt;
  }
  request.body = unread_.substr(headSize, bodySize);
  unread_.erase(0, headSize + bodySize);
  return request;
}

bool LoopbackServer::Connection::send(const Answer& answer) {
  const std::string head = answer.raw.empty() ? headOf(answer) : answer.raw;
  const std::string_view body = answer.raw.empty() ? answer.body : std::string_view();
  switch (answer.manner) {
    case Manner::whole: {
      bool isSent = sendAll(head);
      for (std::uint64_t i = 0; isSent && !body.empty() && i < answer.times; ++i) {
        isSent = sendAll(body);
      }
      return isSent && answer.raw.empty();  // who knows where raw bytes end? closing tells
    }
    case Manner::never:
      while (receive()) continue;
      return false;
    case Manner::trickled:
      return trickle(head, answer.pause) && trickle(body, answer.pause);
    case Manner::cut:
    case Manner::reset:
      sendAll(body.empty() ? std::string_view(head).substr(0, head.size() / 2) : head);
      sendAll(body.substr(0, body.size() / 2));
      if (answer.manner == Manner::reset) reset();
      return false;
  }
  return false;
}

bool LoopbackServer::Connection::sendAll(std::string_view bytes) {
  while (!bytes.empty()) {
    if (!await(POLLOUT)) return false;
    const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool LoopbackServer::Connection::trickle(std::string_view bytes, std::chrono::milliseconds pause) {
  for (const char& byte : bytes) {
    // The peer sends nothing more, so that only its close, or the server's stop, cuts the pause.
    if (await(POLLIN, static_cast<int>(pause.count())) || !sendAll({&byte, 1})) return false;
  }
  return true;
}

void LoopbackServer::Connection::reset() {
  const linger atOnce{.l_onoff = 1, .l_linger = 0};
  setsockopt(socket_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

LoopbackServer::LoopbackServer()
    : listener_(bindLoopback(port_)), stopped_(eventfd(0, EFD_CLOEXEC)) {
  if (::listen(listener_, 128) != 0 || stopped_ < 0) fail("no listening socket");
  listening_ = std::thread([this] { listen(); });
}

LoopbackServer::~LoopbackServer() {
  eventfd_write(stopped_, 1);
  listening_.join();
  for (std::thread& each : serving_) each.join();
  close(listener_);
  close(stopped_);
}

std::string LoopbackServer::url(std::string_view scheme) const { return urlOf(scheme, port_); }

void LoopbackServer::answer(Answer next) {
  const std::scoped_lock lock(lock_);
  answers_.push_back(std::move(next));
}

void LoopbackServer::answerWith(std::function<Answer(const Received&)> respond) {
  const std::scoped_lock lock(lock_);
  respond_ = std::move(respond);
}

std::vector<Received> LoopbackServer::requests() const { return waitForRequests(0); }

std::vector<Received> LoopbackServer::waitForRequests(std::size_t count,
                                                      std::chrono::milliseconds atMost) const {
  std::unique_lock lock(lock_);
  changed_.wait_for(lock, atMost, [&] { return requests_.size() >= count; });
  return requests_;
}

bool LoopbackServer::waitForConnections(std::size_t count, std::chrono::milliseconds atMost) const {
  std::unique_lock lock(lock_);
  return changed_.wait_for(lock, atMost, [&] { return connections_ >= count; });
}

void LoopbackServer::listen() {
  std::array<pollfd, 2> waits{{{stopped_, POLLIN, 0}, {listener_, POLLIN, 0}}};
  while (poll(waits.data(), waits.size(), -1) > 0 && waits[0].revents == 0) {
    const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) continue;
    {
      const std::scoped_lock lock(lock_);
      ++connections_;
    }
    changed_.notify_all();
    serving_.emplace_back([this, socket] { serve(socket); });
  }
}

void LoopbackServer::serve(int socket) {
  Connection connection(socket, stopped_);
  while (const auto request = connection.read()) {
    {
      const std::scoped_lock lock(lock_);
      requests_.push_back(*request);
    }
    changed_.notify_all();
    if (!connection.send(answerTo(*request))) return;
  }
}

Answer LoopbackServer::answerTo(const Received& request) {
  std::unique_lock lock(lock_);
  if (!answers_.empty()) {
    Answer next = std::move(answers_.front());
    answers_.pop_front();
    return next;
  }
  const auto respond = respond_;
  lock.unlock();
  return respond ? respond(request) : Answer{.status = 500, .body = "nothing scripted"};
}

RefusingPort::RefusingPort() : socket_(bindLoopback(port_)) {}
RefusingPort::~RefusingPort() { close(socket_); }
std::string RefusingPort::url() const { return urlOf("http", port_); }

}  // namespace marbleway::tests
