#pragma once

#include <Marbleway/Host.h>
#include <Marbleway/Marbleway.h>
#include <Marbleway/platform/platform.h>

#include <chrono>
#include <memory>
#include <string_view>
#include <utility>

/// What the examples do with the library, whatever their loop.
namespace example {

/// Starts the library on `loop`. The arguments are "--once", for a program that ends at once and
/// not by ^C, and a server's URL; both may be missing. True with "--once".
inline bool begin(std::shared_ptr<marbleway::platform::MainLoop> loop, int count, char** words) {
  const bool isOnce = count > 1 && std::string_view(words[1]) == "--once";
  const char* const url = count > (isOnce ? 2 : 1) ? words[count - 1] : nullptr;
  marbleway::platform::install({.mainLoop = std::move(loop)});  // before the start
  marbleway::configure({.developmentURL = url != nullptr ? url : "http://127.0.0.1:8080/v2/"});
  Marbleway::initMarbleway("my-project", {{"SDKEnvironment", 1}, {"PrivacyMode", false}});
  Marbleway::trackEvent("Started");
  return isOnce;
}

/// The end of the library's use, bit by bit: whoever waited for it would hold up the loop on which
/// the answers that it waits for are dealt with.
class Ending {
 public:
  /// True once all is sent, or 1.5 s are over. Asked again and again, on the loop.
  bool isOver() {
    isIdle_ = marbleway::waitUntilIdle(std::chrono::milliseconds(0));
    if (std::chrono::steady_clock::now() > latest_ || (isIdle_ && isStopped_)) return true;
    if (!isIdle_) return false;
    isStopped_ = true;
    Marbleway::stopSession();  // begins an upload, if the server has answered the start
    return false;
  }
  /// The program's: 1 if the time was not enough.
  int status() const { return isIdle_ && isStopped_ ? 0 : 1; }

 private:
  const std::chrono::steady_clock::time_point latest_ =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  bool isStopped_ = false, isIdle_ = false;
};

}  // namespace example
