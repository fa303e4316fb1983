#include "tools/common/terminal.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <thread>

namespace tools {
namespace {

constexpr int kDefaultWidth = 80;
constexpr int kMinWidth = 20;

volatile std::sig_atomic_t isInterrupted = 0;

void interrupt(int signal) {
  isInterrupted = 1;
  std::signal(signal, SIG_DFL);
}

}  // namespace

std::optional<std::size_t> terminalWidth() {
  const auto known = terminalColumns();
  if (!known) return std::nullopt;
  int width = *known;
  const char* const columns = std::getenv("COLUMNS");
  if (width <= 0 && columns != nullptr) width = std::atoi(columns);
  if (width <= 0) width = kDefaultWidth;
  return static_cast<std::size_t>(std::max(width, kMinWidth));
}

void catchInterrupt() { std::signal(SIGINT, interrupt); }

bool isInterruptedWithin(std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  while (isInterrupted == 0 && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return isInterrupted != 0;
}

}  // namespace tools
