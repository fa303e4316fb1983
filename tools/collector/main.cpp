#include <csignal>
#include <ctime>
#include <exception>
#include <iostream>
#include <span>
#include <stdexcept>

#include "tools/collector/collector.h"
#include "tools/collector/settings.h"

namespace {

/// SIGINT and SIGTERM, which end the program.
sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

/// Returns at the first signal that ends the program; a second one ends it at once.
void waitForEnd(const collector::Collector& collector) {
  constexpr timespec kInterval{0, 100'000'000};  // between two looks at the collector
  const sigset_t signals = endingSignals();
  while (sigtimedwait(&signals, nullptr, &kInterval) < 0) {
    if (collector.hasFailed()) throw std::runtime_error("no more connections can be accepted");
  }
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

int serve(std::span<char* const> words) {
  const tools::Arguments arguments = collector::readArguments(words);
  if (arguments.answer("marbleway-collector", collector::kUsage, std::cout)) return 0;
  const collector::Settings settings = collector::settingsFrom(arguments);
  const sigset_t signals = endingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // in all threads
  const collector::Collector collector(settings, std::cout);
  waitForEnd(collector);
  return 0;
}

}  // namespace

/// Ends with 2 for arguments that make no sense, with 1 for a file or a port that cannot be used.
int main(int count, char** words) {
  try {
    return serve({words + 1, words + count});
  } catch (const tools::UsageError& error) {
    std::cerr << "marbleway-collector: " << error.what() << " (--help lists the options)\n";
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "marbleway-collector: " << error.what() << "\n";
    return 1;
  }
}
