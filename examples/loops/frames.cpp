// The library in a game-like program: pumped by hand, once a frame.
#include <Marbleway/platform/manual_loop.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <optional>
#include <string>

#include "examples/loops/use.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr auto kFrame = 16ms;

volatile std::sig_atomic_t isInterrupted = 0;

/// A ball between two walls.
struct Game {
  double place = 0, speed = 0.4;  // of the way from wall to wall; the same a second

  /// Moves on by `seconds`. True when the ball meets a wall.
  bool move(double seconds) {
    place += speed * seconds;
    const bool meetsWall = place < 0 || place > 1;
    if (meetsWall) speed = -speed;
    return meetsWall;
  }
  void draw() const {
    std::cout << "\r|"
              << std::string(static_cast<std::size_t>(40 * std::clamp(place, 0.0, 1.0)), ' ')
              << "o " << std::flush;
  }
};

}  // namespace

int main(int count, char** words) {
  std::signal(SIGINT, [](int) { isInterrupted = 1; });
  const auto loop = std::make_shared<marbleway::platform::ManualLoop>();
  const bool isOnce = example::begin(loop, count, words);

  Game game;
  std::optional<example::Ending> ending;
  for (auto frameEnd = steady_clock::now() + kFrame;; frameEnd += kFrame) {
    if (game.move(std::chrono::duration<double>(kFrame).count())) Marbleway::trackEvent("Bounced");
    if (!isOnce) game.draw();
    if (!ending && (isOnce || isInterrupted != 0)) ending.emplace();
    if (ending && ending->isOver()) return ending->status();
    // What is left of the frame is the library's: its timers, and what its requests brought.
    const auto left = frameEnd - steady_clock::now();
    loop->pumpFor(std::max(std::chrono::duration_cast<std::chrono::milliseconds>(left), 0ms));
  }
}
