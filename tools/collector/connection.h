#pragma once

#include <httplib.h>

#include <atomic>
#include <memory>

#include "tools/collector/notifier.h"

namespace collector {

/// Waits until the client of `request`, which is being answered, has gone away, or until `bell`
/// ends.
void waitForLeave(const httplib::Request& request, const Notifier& bell);

/// Resets the connection of `request`, which is being answered: its client gets no answer, and an
/// error instead of an orderly end.
void resetConnection(const httplib::Request& request);

/// A number of places for answers that take long, so that threads are left for short ones.
class Places {
 public:
  explicit Places(int number) : free_(number) {}

  /// A place until the last copy of it is gone; nothing when none is free.
  std::shared_ptr<void> take() {
    if (--free_ >= 0) return {this, [](void* self) { ++static_cast<Places*>(self)->free_; }};
    ++free_;
    return nullptr;
  }

 private:
  std::atomic<int> free_;
};

}  // namespace collector
