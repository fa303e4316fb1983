#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "desktop/handles.h"
#include "desktop/timer.h"

namespace marbleway::desktop {

class Peer;

/// The object, the interface and the member that a call is for.
struct Method {
  const char* destination;
  const char* path;
  const char* interface;
  const char* member;
};

/// True for a reply that is no error.
inline bool isAnswer(sd_bus_message* reply) {
  return reply != nullptr && sd_bus_message_is_method_error(reply, nullptr) == 0;
}
/// What a reply that no one needs is given to.
inline void ignore(sd_bus_message* /*reply*/) {}

/// One message bus. It is connected while there is something to ask or to watch; opening, sending
/// and receiving never block. Thread: the bus thread.
class Bus {
 public:
  /// Gets a signal, or a reply, which may be an error; null for a call that could not be sent.
  using Handler = std::function<void(sd_bus_message* message)>;

  /// `address` names Unix sockets; another kind of address counts as none.
  Bus(sd_event* event, std::string address);
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;
  ~Bus() = default;

  /// Calls `method`; `types` and `arguments` are those of sd_bus_message_append. `onReply` runs
  /// once, unless the bus is closed before. The bus starts the destination if it can.
  template <class... Arguments>
  void call(const Method& method, Handler onReply, const char* types = "", Arguments... arguments) {
    const Message message = newCall(method);
    if (!message || sd_bus_message_append(message.get(), types, arguments...) < 0) {
      return onReply(nullptr);
    }
    send(message.get(), std::move(onReply));
  }

  /// Broadcasts a signal, and stays connected for whoever links it to this connection.
  template <class... Arguments>
  void emit(const char* path, const char* interface, const char* member, const char* types,
            Arguments... arguments) {
    if (!isConnected()) return;
    if (sd_bus_emit_signal(connection_.get(), path, interface, member, types, arguments...) >= 0) {
      stayConnected();
    }
  }

  /// Has `onSignal` run for the signals of `rule` until the slot is destroyed; null on failure.
  Slot subscribe(const std::string& rule, Handler onSignal);

  /// Stays connected until the bus goes away.
  void stayConnected() { staysConnected_ = true; }

  /// Registers a peer, which is restarted after the bus has gone away.
  void add(Peer& peer) { peers_.push_back(&peer); }

  /// Handles a connection that has ended, and closes one that is no longer needed. Not from within
  /// a handler.
  void maintain();
  /// True while a call is unanswered, something is watched or the bus is to be reconnected.
  bool isNeeded() const { return handlers_ > 0 || staysConnected_ || reconnect_.isRunning(); }

 private:
  struct Pending;

  bool isConnected();
  Message newCall(const Method& method);
  void send(sd_bus_message* message, Handler onReply);
  Slot adopt(sd_bus_slot* slot, Pending* pending);
  void reconnectLater();
  void reconnect();

  sd_event* event_;
  std::string address_;
  std::vector<Peer*> peers_;
  Timer reconnect_;
  std::chrono::milliseconds delay_;
  std::chrono::steady_clock::time_point opened_{};
  bool staysConnected_ = false;
  bool isLost_ = false;
  int handlers_ = 0;
  Connection connection_;  // destroys handlers, which are counted
};

}  // namespace marbleway::desktop
