#pragma once

#include <cstddef>

// Sockets under common names, and what each system does in a way of its own.
#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>

namespace marbleway::tests {
using Socket = SOCKET;
using pollfd = WSAPOLLFD;
using Length = int;  // of bytes
inline constexpr int MSG_NOSIGNAL = 0, SHUT_RDWR = SD_BOTH, SOCK_CLOEXEC = 0;
inline int poll(pollfd* sockets, unsigned long count, int timeout) {
  return WSAPoll(sockets, count, timeout);
}
inline Socket accept4(Socket socket, sockaddr* address, int* size, int /*flags*/) {
  return accept(socket, address, size);
}
inline void stopListening(Socket socket) { closesocket(socket); }
inline const bool hasSockets = [] {
  WSADATA facts;
  return WSAStartup(MAKEWORD(2, 2), &facts) == 0;
}();
}  // namespace marbleway::tests
#else
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace marbleway::tests {
using Socket = int;
using Length = std::size_t;
inline void closesocket(Socket socket) { close(socket); }
inline void stopListening(Socket socket) { shutdown(socket, SHUT_RDWR); }
}  // namespace marbleway::tests
#endif
