#pragma once

#include <curl/curl.h>

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <utility>

#include "Marbleway/platform/linux/http_client.h"
#include "Marbleway/platform/linux/transfer.h"
#include "Marbleway/platform/worker.h"

namespace marbleway::platform {

/// Drives exchanges through libcurl on the one thread that calls `run`; it sleeps while none is in
/// flight. The other functions are called on any thread.
class TransferLoop : public Work {
 public:
  explicit TransferLoop(HttpOptions options) : options_(std::move(options)) {}

  /// Drives exchanges until `stop`, and completes each with no lock held.
  void run() override;
  /// Lets `run` end every exchange as no response, and return.
  void stop() noexcept override;
  /// Begins the one exchange of the list.
  void enqueue(std::list<Transfer> one);

 private:
  using Transfers = std::list<Transfer>;

  void wake();
  bool awaitWork();
  void step();
  void openMulti();
  void admit(Transfers& finished);
  Transfer::Time collect(Transfers& finished);
  void awaitBytes(Transfer::Time until);
  void endAll();
  void finish(Transfers::iterator transfer, const char* failure, Transfers& finished);

  const HttpOptions options_;

  std::mutex mutex_;  // guards the three below, and the setting of `multi_`
  std::condition_variable changed_;
  Transfers pending_;
  bool isStopping_ = false;

  std::unique_ptr<CURLM, CurlFree<curl_multi_cleanup>> multi_;  // none until it can be had
  Transfers active_;                                            // the thread's own
};

/// For the thread that posts: in front of the first exchange of the process. Afterwards the exit
/// of the process waits until no thread is in libcurl, and lets none in any more.
void guardExit();

}  // namespace marbleway::platform
