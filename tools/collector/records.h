#pragma once

#include <atomic>
#include <string>

#include "tools/collector/behaviour.h"
#include "tools/collector/data_file.h"
#include "tools/collector/journal.h"
#include "tools/collector/notifier.h"

namespace collector {

/// All data of the collector. The protocol's side writes it, the page's side reads it. `notifier`
/// reports each change.
struct Records {
  Records(const std::string& dataFile, const std::string& configFile)
      : behaviour(configFile), data(dataFile), batches(data.lastBatch() + 1), handshakes(1) {}

  void clear() {
    data.clear();
    batches.clear();
    handshakes.clear();
    ++resets;
    notifier.notify();
  }

  Behaviour behaviour;
  DataFile data;
  Journal batches, handshakes;
  std::atomic<long long> resets{0};
  Notifier notifier;
};

}  // namespace collector
