#include "tools/collector/connection.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

namespace collector {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kHeaderTimeout = 5s;
constexpr auto kRequestTimeout = 30s;
constexpr auto kWriteTimeout = 5s;
constexpr auto kDrainTimeout = 2s;
constexpr auto kPollInterval = 50ms;  // between two looks whether the collector ends
constexpr std::size_t kMaxHeaderBytes = 64'000;

/// The numeric address and port of one end of a socket, which `get` reads.
void nameOf(int socket, int (*get)(int, sockaddr*, socklen_t*), std::string& ip, int& port) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> service{};
  if (get(socket, generic, &size) != 0 ||
      getnameinfo(generic, size, host.data(), host.size(), service.data(), service.size(),
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return;
  }
  ip = host.data();
  std::from_chars(service.data(), service.data() + std::strlen(service.data()), port);
}

}  // namespace

thread_local Connection* Connection::current_ = nullptr;

Connection::Connection(int socket, const Notifier& notifier)
    : socket_(socket), notifier_(notifier) {
  current_ = this;
}

Connection::~Connection() {
  current_ = nullptr;
  close(socket_);
}

/// False at `deadline`, and `afterEnd` after the first look that finds the collector ending.
bool Connection::waitFor(short events, Time deadline, std::chrono::milliseconds afterEnd) const {
  bool isEnding = false;
  for (;;) {
    pollfd look{socket_, events, 0};
    if (poll(&look, 1, static_cast<int>(kPollInterval.count())) > 0) return true;
    if (!isEnding && notifier_.ended()) {
      deadline = std::min(deadline, Clock::now() + afterEnd);
      isEnding = true;
    }
    if (Clock::now() >= deadline) return false;
  }
}

bool Connection::hasLeft() const {
  char byte = 0;
  const ssize_t size = recv(socket_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR);
}

void Connection::waitForLeave() const {
  while (!hasLeft() && notifier_.pauseUntil(Clock::now() + kPollInterval)) continue;
}

void Connection::reset() const {
  sockaddr nowhere{};
  nowhere.sa_family = AF_UNSPEC;  // connecting there dissolves a connection
  static_cast<void>(connect(socket_, &nowhere, sizeof nowhere));
}

void Connection::finish() {
  shutdown(socket_, SHUT_WR);
  const Time deadline = Clock::now() + kDrainTimeout;
  ssize_t dropped = 1;
  while (dropped > 0 && Clock::now() < deadline && waitFor(POLLIN, deadline, 0ms)) {
    dropped = recv(socket_, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
  }
}

bool Connection::is_readable() const { return true; }

bool Connection::is_writable() const {
  return waitFor(POLLOUT, Clock::now() + kWriteTimeout, 1s) && !hasLeft();
}

ssize_t Connection::read(char* data, std::size_t size) {
  if (begin_ == end_) {
    const ssize_t received = receive();
    if (received <= 0) return received;
  }
  size = std::min(size, end_ - begin_);
  if (inHeaders_ && !countHeader({&buffer_.at(begin_), size})) return -1;
  std::memcpy(data, &buffer_.at(begin_), size);
  begin_ += size;
  return static_cast<ssize_t>(size);
}

ssize_t Connection::receive() {
  const auto timeout = inHeaders_ ? Clock::duration(kHeaderTimeout) : kRequestTimeout;
  if (Clock::now() >= begun_ + timeout) return -1;
  if (!waitFor(POLLIN, begun_ + timeout, 0ms)) return -1;
  const ssize_t size = recv(socket_, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
  begin_ = 0;
  end_ = size > 0 ? static_cast<std::size_t>(size) : 0;
  return size;
}

/// Counts what is read of the headers, which an empty line ends; false beyond their limit.
bool Connection::countHeader(std::string_view bytes) {
  headerBytes_ += bytes.size();
  for (const char byte : bytes) {
    lineEnd_ += byte;
    if (lineEnd_.size() > 3) lineEnd_.erase(0, 1);
    if (lineEnd_ == "\n\r\n") inHeaders_ = false;
  }
  return headerBytes_ <= kMaxHeaderBytes;
}

ssize_t Connection::write(const char* data, std::size_t size) {
  if (!waitFor(POLLOUT, Clock::now() + kWriteTimeout, 1s)) return -1;
  const ssize_t sent = send(socket_, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent < 0 && errno == EAGAIN ? 0 : sent;
}

void Connection::get_remote_ip_and_port(std::string& ip, int& port) const {
  nameOf(socket_, getpeername, ip, port);
}

void Connection::get_local_ip_and_port(std::string& ip, int& port) const {
  nameOf(socket_, getsockname, ip, port);
}

}  // namespace collector
