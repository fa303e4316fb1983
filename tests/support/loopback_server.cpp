#include "tests/support/loopback_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace marbleway::tests {
namespace {

using namespace std::chrono_literals;

/// Appends what comes next; false once either side has closed.
bool receive(int socket, std::string& unread) {
  std::array<char, 65536> block;
  const ssize_t got = recv(socket, block.data(), block.size(), 0);
  if (got > 0) unread.append(block.data(), static_cast<std::size_t>(got));
  return got > 0;
}

/// Takes the next request off the front of `unread`; false when none comes any more.
bool receive(int socket, std::string& unread, Received& request) {
  constexpr std::string_view kBlankLine = "\r\n\r\n";
  constexpr std::string_view kLength = "Content-Length: ";
  while (unread.find(kBlankLine) == std::string::npos) {
    if (!receive(socket, unread)) return false;
  }
  request.head = unread.substr(0, unread.find(kBlankLine) + kBlankLine.size());
  const std::size_t length = request.head.find(kLength);
  const std::size_t bodySize =
      length == std::string::npos ? 0 : std::stoul(request.head.substr(length + kLength.size()));
  const std::size_t size = request.head.size() + bodySize;
  while (unread.size() < size) {
    if (!receive(socket, unread)) return false;
  }
  request.body = unread.substr(request.head.size(), bodySize);
  unread.erase(0, size);
  return true;
}

bool sendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool trickle(int socket, std::string_view bytes, std::chrono::milliseconds pause) {
  pollfd peer{socket, POLLIN, 0};  // it sends nothing more: a close alone cuts the pause
  for (const char& byte : bytes) {
    if (poll(&peer, 1, static_cast<int>(pause.count())) != 0) return false;
    if (!sendAll(socket, {&byte, 1})) return false;
  }
  return true;
}

/// Half of the body, or of the head when there is no body.
void sendHalf(int socket, std::string_view head, std::string_view body) {
  sendAll(socket, body.empty() ? head.substr(0, head.size() / 2) : head);
  sendAll(socket, body.substr(0, body.size() / 2));
}

/// True when another request may follow.
bool sendAnswer(int socket, const Answer& answer) {
  std::string head = answer.raw;
  if (head.empty()) {
    head = "HTTP/1.1 " + std::to_string(answer.status) + " Scripted\r\n" + answer.headers;
    const std::size_t length = answer.body.size() * answer.times;
    if (answer.status != 204) head += "Content-Length: " + std::to_string(length) + "\r\n";
    head += "\r\n";
  }
  constexpr linger kAtOnce{.l_onoff = 1, .l_linger = 0};
  std::string ignored;
  bool isSent = false;
  switch (answer.manner) {
    case Manner::whole:
      isSent = sendAll(socket, head);
      for (std::size_t i = 0; isSent && i < answer.times; ++i) {
        isSent = sendAll(socket, answer.body);
      }
      return isSent && answer.raw.empty();  // who knows where raw bytes end? closing tells
    case Manner::never:
      while (receive(socket, ignored)) continue;
      return false;
    case Manner::trickled:
      return trickle(socket, head + answer.body, answer.pause);
    case Manner::reset:
      setsockopt(socket, SOL_SOCKET, SO_LINGER, &kAtOnce, sizeof kAtOnce);
      [[fallthrough]];
    case Manner::cut:
      sendHalf(socket, head, answer.body);
  }
  return false;
}

sockaddr_in loopback() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

RefusingPort::RefusingPort() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_in address = loopback();
  if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("no port on 127.0.0.1");
  }
}
RefusingPort::~RefusingPort() { close(socket_); }

std::string RefusingPort::url(std::string_view scheme) const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
  const std::string port = std::to_string(ntohs(address.sin_port));
  return std::string(scheme).append("://127.0.0.1:").append(port).append("/v2/");
}

LoopbackServer::LoopbackServer() {
  if (::listen(socket_, 128) != 0) throw std::runtime_error("no listening socket");
  listening_ = std::thread([this] { listen(); });
}

LoopbackServer::~LoopbackServer() {
  shutdown(socket_, SHUT_RDWR);
  listening_.join();
  {
    const std::scoped_lock lock(mutex_);
    for (const int socket : open_) shutdown(socket, SHUT_RDWR);
  }
  for (std::thread& each : serving_) each.join();
}

void LoopbackServer::answer(Answer next) {
  const std::scoped_lock lock(mutex_);
  answers_.push_back(std::move(next));
}

void LoopbackServer::answerWith(std::function<Answer(const Received&)> respond) {
  const std::scoped_lock lock(mutex_);
  respond_ = std::move(respond);
}

std::vector<Received> LoopbackServer::waitForRequests(std::size_t count) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, 10s, [&] { return requests_.size() >= count; });
  return requests_;
}

void LoopbackServer::waitForConnections(std::size_t count) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, 10s, [&] { return serving_.size() >= count; });
}

void LoopbackServer::listen() {
  while (true) {
    const int socket = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0 && errno == EINVAL) return;  // shut down
    if (socket < 0) continue;
    const std::scoped_lock lock(mutex_);
    open_.insert(socket);
    serving_.emplace_back([this, socket] { serve(socket); });
    changed_.notify_all();
  }
}

void LoopbackServer::serve(int socket) {
  std::string unread;
  Received request;
  do {
    if (!receive(socket, unread, request)) break;
    const std::scoped_lock lock(mutex_);
    requests_.push_back(request);
    changed_.notify_all();
  } while (sendAnswer(socket, answerTo(request)));
  const std::scoped_lock lock(mutex_);
  open_.erase(socket);
  close(socket);
}

Answer LoopbackServer::answerTo(const Received& request) {
  std::unique_lock lock(mutex_);
  if (!answers_.empty()) {
    Answer next = std::move(answers_.front());
    answers_.pop_front();
    return next;
  }
  const auto respond = respond_;
  lock.unlock();
  return respond ? respond(request) : Answer{.status = 500, .body = "nothing scripted"};
}

}  // namespace marbleway::tests
