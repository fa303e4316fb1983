#pragma once

#include <Marbleway/Host.h>
#include <Marbleway/Marbleway.h>
#include <Marbleway/platform/platform.h>

#include <chrono>
#include <memory>
#include <string_view>
#include <utility>

/// The use of the library that the examples share.
namespace example {

/// Starts the library on `loop`. The arguments are "--once", which makes the program end by itself,
/// and a server's URL; both are optional. True with "--once".
inline bool begin(std::shared_ptr<marbleway::platform::MainLoop> loop, int count, char** words) {
  const bool isOnce = count > 1 && std::string_view(words[1]) == "--once";
  const char* const url = count > (isOnce ? 2 : 1) ? words[count - 1] : nullptr;
  marbleway::platform::install({.mainLoop = std::move(loop)});  // before the start
  marbleway::configure({.developmentURL = url != nullptr ? url : "http://127.0.0.1:8080/v2/"});
  Marbleway::initMarbleway("my-project", {{"SDKEnvironment", 1}, {"PrivacyMode", false}});
  Marbleway::trackEvent("Started");
  return isOnce;
}

/// Ends the session and waits for the upload without blocking: answers are applied on the loop, so
/// a task that waited for them there would wait in vain.
class Ending {
 public:
  /// True when the upload has ended or 1.5 s have passed. Call it repeatedly, on the loop.
  bool isOver() {
    isIdle_ = marbleway::waitUntilIdle(std::chrono::milliseconds(0));
    if (std::chrono::steady_clock::now() > latest_ || (isIdle_ && isStopped_)) return true;
    if (!isIdle_) return false;
    isStopped_ = true;
    Marbleway::stopSession();  // begins an upload if the server has answered the start
    return false;
  }
  /// The program's exit status: 1 when the time was too short.
  int status() const { return isIdle_ && isStopped_ ? 0 : 1; }

 private:
  const std::chrono::steady_clock::time_point latest_ =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  bool isStopped_ = false, isIdle_ = false;
};

}  // namespace example
