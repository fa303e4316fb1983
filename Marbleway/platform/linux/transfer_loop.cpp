#include "Marbleway/platform/linux/transfer_loop.h"

#include <algorithm>
#include <climits>
#include <utility>

namespace marbleway::platform {
namespace {

constexpr std::size_t kMaxTransfers = 64;

}  // namespace

void TransferLoop::run() {
  while (awaitWork()) {
    for (Transfer& transfer : drive()) transfer.tell();
  }
  for (Transfer& transfer : abandon()) transfer.tell();
}

void TransferLoop::take(Transfers one) {
  const std::scoped_lock lock(mutex_);
  pending_.splice(pending_.end(), one);
  wake();
}

void TransferLoop::stop() {
  const std::scoped_lock lock(mutex_);
  isStopping_ = true;
  wake();
}

void TransferLoop::hold() {
  turnMutex_.lock();
  {
    const std::scoped_lock lock(mutex_);
    wake();
  }
  curlMutex_.lock();
}

void TransferLoop::release() {
  curlMutex_.unlock();
  turnMutex_.unlock();
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

std::unique_lock<std::mutex> TransferLoop::takeTurn() {
  const std::scoped_lock next(turnMutex_);
  return std::unique_lock(curlMutex_);
}

/// One step of every exchange and, unless one is over by then, a wait for what the next step needs.
TransferLoop::Transfers TransferLoop::drive() {
  const auto turn = takeTurn();
  Transfers over;
  openMulti();
  admit(over);
  int running = 0;
  bool works = multi_ && curl_multi_perform(multi_.get(), &running) == CURLM_OK;
  if (works) {
    const Transfer::Time silent = collect(over);
    if (over.empty()) works = awaitBytes(silent);
  }
  while (!works && !active_.empty()) finish(active_.begin(), false, over);
  return over;
}

/// Without descriptors there is none; the next request tries again.
void TransferLoop::openMulti() {
  if (multi_) return;
  decltype(multi_) made(curl_multi_init());
  // One that lacks the descriptors it is woken through would sleep on when a request arrives.
  if (!made || curl_multi_wakeup(made.get()) != CURLM_OK) return;
  const std::scoped_lock lock(mutex_);
  multi_ = std::move(made);
}

void TransferLoop::admit(Transfers& over) {
  Transfers arrived;
  {
    const std::scoped_lock lock(mutex_);
    arrived.swap(pending_);
  }
  while (!arrived.empty()) {
    if (active_.size() == kMaxTransfers) finish(active_.begin(), false, over);
    active_.splice(active_.end(), arrived, arrived.begin());
    const bool hasBegun =
        multi_ && active_.back().begin(multi_.get(), options_, Transfer::Clock::now());
    if (!hasBegun) finish(std::prev(active_.end()), false, over);
  }
}

/// Moves what is complete, has failed or is silent to `over`; tells when the next is silent.
Transfer::Time TransferLoop::collect(Transfers& over) {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    const auto transfer = std::ranges::find_if(
        active_, [&](const Transfer& each) { return each.isUnderWayAs(message->easy_handle); });
    finish(transfer, message->data.result == CURLE_OK, over);
  }
  Transfer::Time earliest = Transfer::Time::max();
  const Transfer::Time now = Transfer::Clock::now();
  for (auto next = active_.begin(); next != active_.end();) {
    const auto transfer = next++;
    const Transfer::Time silent = transfer->lastByte(now) + options_.silence;
    earliest = std::min(earliest, silent);
    if (silent <= now) finish(transfer, false, over);
  }
  return earliest;
}

/// Waits for a byte, a wake-up, one of libcurl's own timers or `until`. False: it cannot wait.
bool TransferLoop::awaitBytes(Transfer::Time until) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Transfer::Clock::now());
  const auto atMost = std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, INT_MAX);
  return curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(atMost), nullptr) == CURLM_OK;
}

TransferLoop::Transfers TransferLoop::abandon() {
  const auto turn = takeTurn();
  Transfers over;
  while (!active_.empty()) finish(active_.begin(), false, over);
  const std::scoped_lock lock(mutex_);
  multi_.reset();
  over.splice(over.end(), pending_);
  return over;
}

void TransferLoop::finish(Transfers::iterator transfer, bool complete, Transfers& over) {
  transfer->end(complete);
  over.splice(over.end(), active_, transfer);
}

}  // namespace marbleway::platform
