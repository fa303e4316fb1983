#pragma once

#include <atomic>
#include <string_view>

#include "Marbleway/Host.h"
#include "Marbleway/platform/value.h"

// What developers are shown of what happens inside. Off unless the host has configured a function,
// or the environment has MARBLEWAY_DIAGNOSTICS=1.
namespace marbleway::diagnostics {

enum class State { unread, off, on };
inline constinit std::atomic<State> state{State::unread};

/// Reads the environment, once.
bool readState();

/// Whether diagnostics are on. One relaxed load.
inline bool areOn() { return state.load(std::memory_order_relaxed) != State::off && readState(); }

/// Called when the host has configured the library anew.
void configured(const Configuration& configuration);

/// Adds the time and the present call to `diagnostic`, prints it, and posts it to the main loop for
/// the host's function. Does nothing unless diagnostics are on. Thread: any.
void report(Diagnostic diagnostic) noexcept;

/// Reports that the present call, or one of its values, is refused.
void refused(std::string_view reason) noexcept;

/// Names the operation that the calling thread is in, for the diagnostics of this object's life. In
/// an operation that another one calls it does nothing. `key` must live as long.
class Call {
 public:
  Call(const char* operation, const Text& key);
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() {
    if (isNamed_) leave();
  }

 private:
  static void leave();

  bool isNamed_ = false;
};

}  // namespace marbleway::diagnostics
