// The library in a game-like program, which pumps the main loop once a frame.
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
  double position = 0, speed = 0.4;  // distance between the walls is 1; speed is a second's

  /// Moves the ball for `seconds`. True when it hits a wall.
  bool move(double seconds) {
    position += speed * seconds;
    const bool hitsWall = position < 0 || position > 1;
    if (hitsWall) speed = -speed;
    return hitsWall;
  }
  void draw() const {
    std::cout << "\r|"
              << std::string(static_cast<std::size_t>(40 * std::clamp(position, 0.0, 1.0)), ' ')
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
    // The rest of the frame is for the library's timers and the answers to its requests.
    const auto left = frameEnd - steady_clock::now();
    loop->pumpFor(std::max(std::chrono::duration_cast<std::chrono::milliseconds>(left), 0ms));
  }
}
