#pragma once

// Sockets under the names that Windows gives them where it differs.
#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>

namespace marbleway::tests {
using Socket = SOCKET;
using pollfd = WSAPOLLFD;
inline constexpr int MSG_NOSIGNAL = 0, SHUT_RDWR = SD_BOTH, SOCK_CLOEXEC = 0;
inline int poll(pollfd* sockets, unsigned long count, int timeout) {
  return WSAPoll(sockets, count, timeout);
}
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
inline int closesocket(Socket socket) { return close(socket); }
}  // namespace marbleway::tests
#endif
