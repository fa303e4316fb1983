#include "tools/collector/server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>

namespace collector {
namespace {

constexpr std::size_t kThreads = 64;  // more than all answers that may take long
constexpr int kBacklog = 128;         // connections that wait to be accepted
constexpr std::chrono::milliseconds kRetryInterval{10};

}  // namespace

int Server::listenOn(const std::string& host, int port) {
  // Only a port that no other program listens on: the base's default shares one.
  set_socket_options([](socket_t socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  const bool isAny = port == 0;
  if (isAny) port = bind_to_any_port(host);
  if (isAny ? port > 0 : bind_to_port(host, port)) {
    ::listen(svr_sock_, kBacklog);
    return port;
  }
  throw std::runtime_error("cannot listen on " + host + " port " + std::to_string(port));
}

void Server::start() {
  accepting_ = std::async(std::launch::async, [this] { acceptAll(); });
}

void Server::stopAccepting() {
  if (!accepting_.valid()) return;
  stopping_ = true;
  ::shutdown(svr_sock_, SHUT_RDWR);  // wakes `accept`
  accepting_.get();
}

/// An accept that fails for the moment (no descriptor or memory left, a client that has gone) is
/// tried again; one that cannot succeed any more ends the loop.
void Server::acceptAll() {
  httplib::ThreadPool threads(kThreads);
  while (!stopping_) {
    const int socket = accept4(svr_sock_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket >= 0) {
      threads.enqueue([this, socket] { serve(socket); });
    } else if (errno == EBADF || errno == EINVAL || errno == ENOTSOCK || errno == EOPNOTSUPP) {
      failed_ = !stopping_;
      break;
    } else if (errno != EINTR) {
      std::this_thread::sleep_for(kRetryInterval);
    }
  }
  threads.shutdown();
}

void Server::serve(int socket) {
  const int yes = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  Connection connection(socket, notifier_);
  bool isClosed = false;
  process_request(connection, true, isClosed, nullptr);
  connection.finish();
}

}  // namespace collector
