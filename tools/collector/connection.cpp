#include "tools/collector/connection.h"

#include <netdb.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <string>

namespace collector {
namespace {

using Socket = int;
using GetName = int (*)(Socket, sockaddr*, socklen_t*);

/// "address port" of one end of a socket; empty for what is no connection.
std::string nameOf(Socket socket, GetName get) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (get(socket, generic, &size) != 0) return {};
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> port{};
  if (getnameinfo(generic, size, host.data(), host.size(), port.data(), port.size(),
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return {};
  }
  return std::string(host.data()).append(" ").append(port.data());
}

/// The server keeps the socket to itself, so it is found by its two ends. -1 when there is none.
Socket socketOf(const httplib::Request& request) {
  const std::string far = request.remote_addr + " " + std::to_string(request.remote_port);
  const std::string near = request.local_addr + " " + std::to_string(request.local_port);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const std::string number = entry.path().filename();
    Socket socket = -1;
    std::from_chars(number.data(), number.data() + number.size(), socket);
    if (nameOf(socket, getpeername) == far && nameOf(socket, getsockname) == near) return socket;
  }
  return -1;
}

bool hasLeft(Socket socket) {
  char byte = 0;
  const ssize_t size = recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR);
}

}  // namespace

void waitForLeave(const httplib::Request& request, const Notifier& bell) {
  using namespace std::chrono_literals;
  const Socket socket = socketOf(request);
  while (!hasLeft(socket) && bell.pauseUntil(std::chrono::steady_clock::now() + 50ms)) continue;
}

void resetConnection(const httplib::Request& request) {
  sockaddr nowhere{};
  nowhere.sa_family = AF_UNSPEC;  // connecting there dissolves a connection
  static_cast<void>(connect(socketOf(request), &nowhere, sizeof nowhere));
}

}  // namespace collector
