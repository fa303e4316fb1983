#pragma once

#include <curl/curl.h>

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <utility>

#include "Marbleway/platform/linux/http_client.h"
#include "Marbleway/platform/linux/transfer.h"

namespace marbleway::platform {

/// Drives exchanges through libcurl on the one thread that calls `run`; it sleeps while none is in
/// flight. The other functions are called on any thread.
class TransferLoop {
 public:
  explicit TransferLoop(HttpOptions options) : options_(std::move(options)) {}

  /// Works until `stop`, and runs each exchange's `done` with no lock held.
  void run();
  /// Sends off `one`. Beyond 64 at once the oldest ends as no answer.
  void take(std::list<Transfer> one);
  /// Lets `run` end what is in flight and what waits as no answer, and return.
  void stop();

  /// Waits until the thread is out of libcurl, and keeps it out until `release`; a `done` that is
  /// running goes on.
  void hold();
  void release();

 private:
  using Transfers = std::list<Transfer>;

  void wake();
  bool awaitWork();
  std::unique_lock<std::mutex> takeTurn();
  Transfers drive();
  void openMulti();
  void admit(Transfers& over);
  Transfer::Time collect(Transfers& over);
  bool awaitBytes(Transfer::Time until);
  Transfers abandon();
  void finish(Transfers::iterator transfer, bool complete, Transfers& over);

  const HttpOptions options_;

  std::mutex
      turnMutex_;  // held on the way to `curlMutex_`: whoever waits for that has the next turn
  std::mutex curlMutex_;  // held by the thread while it is in libcurl

  std::mutex mutex_;  // on the three below, and on the setting of `multi_`
  std::condition_variable changed_;
  Transfers pending_;
  bool isStopping_ = false;

  std::unique_ptr<CURLM, CurlFree<curl_multi_cleanup>> multi_;  // none until it can be had
  Transfers active_;                                            // the thread's own, oldest first
};

}  // namespace marbleway::platform
