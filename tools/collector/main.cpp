#include <csignal>
#include <exception>
#include <iostream>
#include <span>

#include "tools/collector/arguments.h"
#include "tools/collector/collector.h"

namespace {

/// Blocks the signals that end the program, in this thread and all that it starts.
sigset_t blockEnd() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

int serve(std::span<char* const> arguments) {
  const auto settings = collector::readArguments(arguments);
  if (!settings) {
    std::cout << collector::kUsage;
    return 0;
  }
  const sigset_t signals = blockEnd();
  const collector::Collector collector(*settings, std::cout);
  int received = 0;
  sigwait(&signals, &received);
  return 0;
}

}  // namespace

/// Ends with 2 for arguments that make no sense, with 1 for a file or a port that cannot be used.
int main(int count, char** arguments) {
  try {
    return serve({arguments + 1, arguments + count});
  } catch (const collector::UsageError& error) {
    std::cerr << "marbleway-collector: " << error.what() << " (--help tells the options)\n";
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "marbleway-collector: " << error.what() << "\n";
    return 1;
  }
}
