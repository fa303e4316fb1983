#pragma once

#include "Marbleway/platform/status_bar.h"
#include "desktop/bus_thread.h"

namespace marbleway::desktop {

/// Shows the connection type as the item of a status bar, from memory.
class StatusBar final : public platform::StatusBar {
 public:
  explicit StatusBar(BusThread& thread) : thread_(thread) {}
  std::shared_ptr<const platform::View> view() override;

 private:
  BusThread& thread_;
};

}  // namespace marbleway::desktop
