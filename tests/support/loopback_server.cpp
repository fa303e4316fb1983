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
bool receive(int socket, std::string& bytes) {
  std::array<char, 65536> block;
  const ssize_t got = recv(socket, block.data(), block.size(), 0);
  if (got > 0) bytes.append(block.data(), static_cast<std::size_t>(got));
  return got > 0;
}

/// False when no whole request comes.
bool receive(int socket, Received& request) {
  constexpr std::string_view kBlankLine = "\r\n\r\n", kLength = "Content-Length: ";
  std::string& body = request.body;
  std::size_t end = 0;
  while ((end = body.find(kBlankLine)) == std::string::npos) {
    if (!receive(socket, body)) return false;
  }
  request.head = body.substr(0, end + kBlankLine.size());
  body.erase(0, request.head.size());
  const std::size_t length = request.head.find(kLength);
  const bool hasBody = length != std::string::npos;
  const std::size_t size = hasBody ? std::stoul(request.head.substr(length + kLength.size())) : 0;
  while (body.size() < size && receive(socket, body)) continue;
  return body.size() >= size;
}

bool sendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

void trickle(int socket, std::string_view bytes, std::chrono::milliseconds pause) {
  pollfd peer{socket, POLLIN, 0};  // it sends nothing more: a close alone ends the pause
  for (const char& byte : bytes) {
    if (poll(&peer, 1, static_cast<int>(pause.count())) != 0 || !sendAll(socket, {&byte, 1})) break;
  }
}

void sendAnswer(int socket, const Answer& answer) {
  std::string head = answer.raw;
  if (head.empty()) {
    head = "HTTP/1.1 " + std::to_string(answer.status) + " Scripted\r\n" + answer.headers;
    if (answer.status != 204 && answer.manner != Manner::endless) {
      head += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
    }
    head += "\r\n";
  }
  const std::string bytes = head + answer.body;
  constexpr linger kAtOnce{.l_onoff = 1, .l_linger = 0};
  std::string ignored;
  switch (answer.manner) {
    case Manner::whole:
      sendAll(socket, bytes);
      break;
    case Manner::never:
      while (receive(socket, ignored)) continue;
      break;
    case Manner::trickled:
      trickle(socket, bytes, answer.pause);
      break;
    case Manner::reset:
      setsockopt(socket, SOL_SOCKET, SO_LINGER, &kAtOnce, sizeof kAtOnce);
      [[fallthrough]];
    case Manner::cut:  // in the body, or in the head when there is no body
      sendAll(socket,
              std::string_view(bytes).substr(
                  0, answer.body.empty() ? head.size() / 2 : head.size() + answer.body.size() / 2));
      break;
    case Manner::endless:
      sendAll(socket, head);
      while (sendAll(socket, answer.body)) continue;
  }
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
  Received request;
  if (receive(socket, request)) {
    {
      const std::scoped_lock lock(mutex_);
      requests_.push_back(request);
      changed_.notify_all();
    }
    sendAnswer(socket, answerTo(request));
  }
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
