#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

// The loops of the stress program: each runs in a process of its own, which nothing has touched.
namespace marbleway::stress {

/// What a loop has to go by.
struct Effort {
  std::filesystem::path directory;  // where stores are made; a loop makes its own below it
  double share = 1;                 // of the full number of rounds
  std::chrono::seconds soak{600};
  std::uint32_t seed = 0;

  /// The share of `full`, one at least.
  int of(int full) const;
};

/// What a loop found.
struct Outcome {
  bool isMet = false;
  std::string result;
};

/// One line of the table.
struct Loop {
  const char* name;
  const char* figure;
  const char* goal;
  Outcome (*run)(const Effort& effort);
};

Outcome recordUnderLoad(const Effort& effort);
Outcome killRecording(const Effort& effort);
Outcome killFirstStart(const Effort& effort);
Outcome exitInTLS(const Effort& effort);
Outcome forkRecording(const Effort& effort);
Outcome crashInEveryWay(const Effort& effort);
Outcome recordInTwoProcesses(const Effort& effort);
Outcome saturateInTwoProcesses(const Effort& effort);
Outcome writeDefaultsInTwoProcesses(const Effort& effort);
Outcome killDefaults(const Effort& effort);
Outcome failReadingDefaults(const Effort& effort);
Outcome fillDisk(const Effort& effort);
Outcome operateAtRandom(const Effort& effort);
Outcome soak(const Effort& effort);

}  // namespace marbleway::stress
