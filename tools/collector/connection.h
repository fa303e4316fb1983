#pragma once

#include <httplib.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "tools/collector/notifier.h"

namespace collector {

/// The connection of one request: its headers take five seconds and 64,000 bytes at most, the whole
/// request 30 seconds; a client that takes nothing of its answer for five seconds is given up. Once
/// the collector ends, only what has arrived is read, and nothing is waited for longer than one
/// second. Thread: one.
class Connection : public httplib::Stream {
 public:
  /// Owns `socket`. `notifier` reports the end of the collector.
  Connection(int socket, const Notifier& notifier);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() override;

  /// The connection of the request that this thread is answering.
  static Connection& current() { return *current_; }

  /// Waits until the client has left or the collector ends.
  void waitForLeave() const;
  /// Resets the connection: the client gets an error instead of an answer.
  void reset() const;
  /// Ends the answer, then drops the rest of the request, for two seconds at most: a connection
  /// closed with bytes unread may cost the client the answer.
  void finish();

  bool is_readable() const override;
  bool is_writable() const override;
  ssize_t read(char* data, std::size_t size) override;
  ssize_t write(const char* data, std::size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  socket_t socket() const override { return socket_; }

 private:
  using Time = std::chrono::steady_clock::time_point;

  bool waitFor(short events, Time deadline, std::chrono::milliseconds afterEnd) const;
  bool hasLeft() const;
  ssize_t receive();
  bool countHeader(std::string_view bytes);

  static thread_local Connection* current_;

  const int socket_;
  const Notifier& notifier_;
  const Time begun_ = std::chrono::steady_clock::now();
  std::array<char, 16'384> buffer_{};
  std::size_t begin_ = 0, end_ = 0;  // of what `buffer_` holds
  std::size_t headerBytes_ = 0;
  std::string lineEnd_;  // the last three bytes of the headers so far
  bool inHeaders_ = true;
};

/// A limited number of slots for answers that take long, so that threads are left for short ones.
class Slots {
 public:
  explicit Slots(int number) : free_(number) {}

  /// A slot until the last copy of it is destroyed; null when none is free.
  std::shared_ptr<void> acquire() {
    if (--free_ >= 0) return {this, [](void* self) { ++static_cast<Slots*>(self)->free_; }};
    ++free_;
    return nullptr;
  }

 private:
  std::atomic<int> free_;
};

}  // namespace collector
