#pragma once

#include <atomic>
#include <string>

#include "tools/collector/behaviour.h"
#include "tools/collector/data_file.h"
#include "tools/collector/journal.h"
#include "tools/collector/notifier.h"

namespace collector {

/// All that the collector knows; the protocol's side writes it, the page's side reads it. The bell
/// rings after each change.
struct Records {
  Records(const std::string& dataFile, const std::string& configFile)
      : behaviour(configFile), data(dataFile), batches(data.lastBatch() + 1), handshakes(1) {}

  void forget() {
    data.forget();
    batches.clear();
    handshakes.clear();
    ++resets;
    bell.ring();
  }

  Behaviour behaviour;
  DataFile data;
  Journal batches, handshakes;
  std::atomic<long long> resets{0};
  Notifier bell;
};

}  // namespace collector
