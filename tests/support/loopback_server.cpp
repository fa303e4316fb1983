#include "tests/support/loopback_server.h"

#include <span>
#include <stdexcept>
#include <utility>

namespace marbleway::tests {
namespace {

using namespace std::chrono_literals;

/// False when no whole request comes.
bool receive(Socket socket, Received& request) {
  constexpr std::string_view kLength = "Content-Length: ";
  auto& [head, body] = request;
  for (char next = 0; !head.ends_with("\r\n\r\n"); head += next) {
    if (recv(socket, &next, 1, 0) != 1) return false;
  }
  const std::size_t length = head.find(kLength);
  if (length != std::string::npos) body.resize(std::stoul(head.substr(length + kLength.size())));
  for (std::span left(body); !left.empty();) {  // Wine may hand out less than was asked for
    const auto count = recv(socket, left.data(), static_cast<Length>(left.size()), MSG_WAITALL);
    if (count <= 0) return false;
    left = left.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

bool sendAll(Socket socket, std::string_view bytes) {
  const auto size = static_cast<Length>(bytes.size());
  return send(socket, bytes.data(), size, MSG_NOSIGNAL) == std::ssize(bytes);
}

void sendAnswer(Socket socket, const Answer& answer) {
  const std::string head = "HTTP/1.1 " + std::to_string(answer.status) +
                           " Scripted\r\nContent-Length: " + std::to_string(answer.body.size());
  const std::string bytes = answer.raw.empty() ? head + "\r\n\r\n" + answer.body : answer.raw;
  pollfd peer{socket, POLLIN, 0};  // it sends nothing more: a close alone ends a pause
  switch (answer.manner) {
    case Manner::never:
      while (poll(&peer, 1, 100) == 0) continue;  // Wine misses a close during a wait
      break;
    case Manner::trickled:
      for (const char& byte : bytes) {
        if (poll(&peer, 1, 10) != 0 || !sendAll(socket, {&byte, 1})) break;
      }
      break;
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
RefusingPort::~RefusingPort() { closesocket(socket_); }

std::string RefusingPort::host() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
  return "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

std::string RefusingPort::url(std::string_view scheme) const {
  return std::string(scheme).append("://").append(host()).append("/v2/");
}

LoopbackServer::LoopbackServer(const Answer& answer)
    : respond_([answer](const Received& /*request*/) { return answer; }) {
  if (::listen(socket_, 128) != 0) throw std::runtime_error("no listening socket");
  listening_ = std::thread([this] { listen(); });
}

LoopbackServer::~LoopbackServer() {
  isStopping_ = true;
  stopListening(socket_);
  listening_.join();
  const std::scoped_lock lock(mutex_);
  for (const Socket socket : open_) shutdown(socket, SHUT_RDWR);
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
    const Socket socket = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    if (isStopping_) return static_cast<void>(closesocket(socket));
    if (socket == static_cast<Socket>(-1)) continue;
    const std::scoped_lock lock(mutex_);
    open_.insert(socket);
    serving_.emplace_back([this, socket] { serve(socket); });
  }
}

void LoopbackServer::serve(Socket socket) {
  Received request;
  if (receive(socket, request)) {
    std::unique_lock lock(mutex_);
    requests_.push_back(request);
    changed_.notify_all();
    const auto respond = respond_;
    lock.unlock();
    sendAnswer(socket, respond(request));
  }
  const std::scoped_lock lock(mutex_);
  open_.erase(socket);
  closesocket(socket);
}

}  // namespace marbleway::tests
