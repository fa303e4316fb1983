#include "Marbleway/platform/linux/transfer_loop.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "Marbleway/platform/fork.h"

namespace marbleway::platform {
namespace {

constexpr const char* kNoHandle = "libcurl has no memory or no descriptors";

constinit ForkSafeMutex curlMutex;  // held by a thread while it is in libcurl, but for waits
constinit std::atomic<bool> isExitGuarded{false};
bool isCurlInitialized = false;  // guarded by `curlMutex`

/// A thread in TLS while the process takes TLS down would crash it: none gets there from here on.
void atExit() {
  isProcessEnding = true;
  const std::scoped_lock lock(curlMutex);
}

void initializeCurl() {
  if (std::exchange(isCurlInitialized, true)) return;
  (void)curl_global_init(CURL_GLOBAL_DEFAULT);  // after a failure no handle can be made
  (void)std::atexit(atExit);                    // for a TLS library that `guardExit` does not know
}

/// Runs `step` while neither an exit nor a fork takes place. Once the process ends, it does not
/// return.
template <class Step>
auto inCurl(Step step) {
  if (!isProcessEnding) {
    const std::scoped_lock lock(curlMutex);
    if (!isProcessEnding) return step();
  }
  while (true) pause();  // no handler runs on this thread
}

}  // namespace

// OpenSSL registers an exit handler of its own while it is initialized, which the network thread
// does. Exit handlers run in reverse order: the first one is OpenSSL's, registered here in 10 us,
// and then ours, which so runs before it at any moment of the initialization.
void guardExit() {
  if (isExitGuarded.exchange(true)) return;
  constexpr std::uint64_t kWithoutConfiguration = 0x80;  // OPENSSL_INIT_NO_LOAD_CONFIG
  using Initialize = int(std::uint64_t options, const void* settings);
  auto* initialize = reinterpret_cast<Initialize*>(dlsym(RTLD_DEFAULT, "OPENSSL_init_crypto"));
  if (initialize != nullptr) (void)initialize(kWithoutConfiguration, nullptr);
  (void)std::atexit(atExit);
}

void TransferLoop::run() {
  while (awaitWork()) step();
  endAll();
}

void TransferLoop::enqueue(Transfers one) {
  const std::scoped_lock lock(mutex_);
  pending_.splice(pending_.end(), one);
  wake();
}

void TransferLoop::stop() noexcept {
  const std::scoped_lock lock(mutex_);
  isStopping_ = true;
  wake();
}

void TransferLoop::wake() {
  changed_.notify_one();
  if (multi_) (void)curl_multi_wakeup(multi_.get());  // a wait that begins later ends at once too
}

bool TransferLoop::awaitWork() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return isStopping_ || !pending_.empty() || !active_.empty(); });
  return !isStopping_;
}

/// One step of every exchange and, unless one is over by then, a wait for what the next step needs.
void TransferLoop::step() {
  Transfers finished;
  const auto until = inCurl([&] {
    openMulti();
    admit(finished);
    int running = 0;
    if (multi_ && curl_multi_perform(multi_.get(), &running) == CURLM_OK) return collect(finished);
    while (!active_.empty()) finish(active_.begin(), kNoHandle, finished);
    return Transfer::Time::max();
  });
  if (finished.empty()) awaitBytes(until);
  for (Transfer& transfer : finished) transfer.complete();
}

/// Without descriptors there is none; the next request tries again.
void TransferLoop::openMulti() {
  initializeCurl();
  if (multi_) return;
  decltype(multi_) made(curl_multi_init());
  // One that lacks the descriptors it is woken through would sleep on when a request arrives.
  if (!made || curl_multi_wakeup(made.get()) != CURLM_OK) return;
  const std::scoped_lock lock(mutex_);
  multi_ = std::move(made);
}

void TransferLoop::admit(Transfers& finished) {
  Transfers arrived;
  {
    const std::scoped_lock lock(mutex_);
    arrived.swap(pending_);
  }
  while (!arrived.empty()) {
    active_.splice(active_.end(), arrived, arrived.begin());
    const bool hasBegun =
        multi_ && active_.back().begin(multi_.get(), options_, Transfer::Clock::now());
    if (!hasBegun) finish(std::prev(active_.end()), kNoHandle, finished);
  }
}

/// Moves what is complete, has failed or is out of time to `finished`. Returns when the next
/// exchange is out of time.
Transfer::Time TransferLoop::collect(Transfers& finished) {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    const auto transfer = std::ranges::find_if(
        active_, [&](const Transfer& each) { return each.uses(message->easy_handle); });
    const CURLcode result = message->data.result;
    finish(transfer, result == CURLE_OK ? nullptr : curl_easy_strerror(result), finished);
  }
  Transfer::Time earliest = Transfer::Time::max();
  const Transfer::Time now = Transfer::Clock::now();
  for (auto next = active_.begin(); next != active_.end();) {
    const auto transfer = next++;
    const Transfer::Time deadline = transfer->deadline(options_, now);
    earliest = std::min(earliest, deadline);
    if (deadline <= now) finish(transfer, "timed out", finished);
  }
  return earliest;
}

/// Waits for a byte, a wake-up, one of libcurl's own timers or `until`. Where it cannot wait, every
/// exchange ends.
void TransferLoop::awaitBytes(Transfer::Time until) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Transfer::Clock::now());
  const auto atMost = std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, INT_MAX);
  if (curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(atMost), nullptr) != CURLM_OK) {
    endAll();
  }
}

void TransferLoop::endAll() {
  Transfers finished;
  inCurl([&] {
    while (!active_.empty()) finish(active_.begin(), "ended", finished);
    const std::scoped_lock lock(mutex_);
    if (isStopping_) multi_.reset();
    finished.splice(finished.end(), pending_);
  });
  for (Transfer& transfer : finished) transfer.complete();
}

void TransferLoop::finish(Transfers::iterator transfer, const char* failure, Transfers& finished) {
  transfer->end(failure);
  finished.splice(finished.end(), active_, transfer);
}

}  // namespace marbleway::platform
