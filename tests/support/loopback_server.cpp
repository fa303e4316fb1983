#include "tests/support/loopback_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
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
  auto& [head, body] = request;
  std::size_t end = 0;
  while ((end = body.find(kBlankLine)) == std::string::npos) {
    if (!receive(socket, body)) return false;
  }
  head = body.substr(0, end + kBlankLine.size());
  body.erase(0, head.size());
  const std::size_t length = head.find(kLength);
  const std::size_t size =
      length == std::string::npos ? 0 : std::stoul(head.substr(length + kLength.size()));
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

void sendAnswer(int socket, const Answer& answer) {
  const std::string head = "HTTP/1.1 " + std::to_string(answer.status) +
                           " Scripted\r\nContent-Length: " + std::to_string(answer.body.size());
  const std::string bytes = answer.raw.empty() ? head + "\r\n\r\n" + answer.body : answer.raw;
  constexpr linger kAtOnce{.l_onoff = 1, .l_linger = 0};
  pollfd peer{socket, POLLIN, 0};  // it sends nothing more: a close alone ends a pause
  std::string ignored;
  switch (answer.manner) {
    case Manner::never:
      while (receive(socket, ignored)) continue;
      break;
    case Manner::trickled:
      for (const char& byte : bytes) {
        if (poll(&peer, 1, 10) != 0 || !sendAll(socket, {&byte, 1})) break;
      }
      break;
    case Manner::reset:
      setsockopt(socket, SOL_SOCKET, SO_LINGER, &kAtOnce, sizeof kAtOnce);
      [[fallthrough]];
    case Manner::whole:
      sendAll(socket, bytes);
      break;
    case Manner::endless:
      while (sendAll(socket, bytes)) continue;
  }
}

}  // namespace

RefusingPort::RefusingPort() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("no port on 127.0.0.1");
  }
}
RefusingPort::~RefusingPort() { close(socket_); }

std::string RefusingPort::host() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
  return "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

std::string RefusingPort::url(std::string_view scheme) const {
  return std::string(scheme).append("://").append(host()).append("/v2/");
}

LoopbackServer::LoopbackServer() {
  if (::listen(socket_, 128) != 0) throw std::runtime_error("no listening socket");
  listening_ = std::thread([this] { listen(); });
}

LoopbackServer::~LoopbackServer() {
  shutdown(socket_, SHUT_RDWR);
  listening_.join();
  const std::scoped_lock lock(mutex_);
  for (const int socket : open_) shutdown(socket, SHUT_RDWR);
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

void LoopbackServer::listen() {
  while (true) {
    const int socket = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0 && errno == EINVAL) return;  // shut down
    if (socket < 0) continue;
    const std::scoped_lock lock(mutex_);
    open_.insert(socket);
    serving_.emplace_back([this, socket] { serve(socket); });
  }
}

void LoopbackServer::serve(int socket) {
  Received request;
  if (receive(socket, request)) {
    std::unique_lock lock(mutex_);
    requests_.push_back(request);
    changed_.notify_all();
    const auto respond = respond_;
    lock.unlock();
    sendAnswer(socket, respond ? respond(request) : Answer{.status = 500});
  }
  const std::scoped_lock lock(mutex_);
  open_.erase(socket);
  close(socket);
}

}  // namespace marbleway::tests
