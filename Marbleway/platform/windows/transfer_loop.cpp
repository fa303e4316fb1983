#include "Marbleway/platform/windows/transfer_loop.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "Marbleway/platform/catch_all.h"

namespace marbleway::platform {
namespace {

/// The longest wait; a longer one would overflow where the clock is converted.
constexpr std::chrono::hours kMaxWait{1};

InternetHandle openSession() {
  InternetHandle session(WinHttpOpen(nullptr, WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY,
                                     WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS,
                                     WINHTTP_FLAG_ASYNC));
  // TLS 1.2 or later; a Windows that has no TLS 1.3 refuses both together.
  for (DWORD protocols :
       {DWORD{WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3},
        DWORD{WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2}}) {
    if (session && WinHttpSetOption(session.get(), WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols,
                                    sizeof(protocols)) != 0) {
      break;
    }
  }
  return session;
}

}  // namespace

void TransferLoop::run() {
  while (step()) {
  }
  while (!active_.empty()) finish(active_.begin(), "ended");
}

void TransferLoop::take(std::shared_ptr<Transfer> transfer) {
  const std::scoped_lock lock(inbox_->mutex);
  pending_.push_back(std::move(transfer));
  inbox_->changed.notify_one();
}

void TransferLoop::stop() noexcept {
  const std::scoped_lock lock(inbox_->mutex);
  isStopping_ = true;
  inbox_->changed.notify_one();
}

/// Waits for something to do, and does it. False once stopped.
bool TransferLoop::step() {
  const auto until = std::min(nextDeadline(), Transfer::Clock::now() + kMaxWait);
  Transfers arrived;
  std::vector<HttpEvent> events;
  bool isStopping = false;
  bool hasFailed = false;
  {
    std::unique_lock lock(inbox_->mutex);
    inbox_->changed.wait_until(lock, until, [this] {
      return isStopping_ || inbox_->hasFailed || !pending_.empty() || !inbox_->events.empty();
    });
    arrived.swap(pending_);
    events.swap(inbox_->events);
    isStopping = isStopping_;
    hasFailed = std::exchange(inbox_->hasFailed, false);
  }
  admit(arrived);
  dispatch(events);
  while (hasFailed && !active_.empty()) finish(active_.begin(), "no memory");
  expire();
  return !isStopping;
}

void TransferLoop::admit(const Transfers& arrived) {
  for (const auto& transfer : arrived) {
    if (!session_) session_ = openSession();
    bool hasBegun = false;
    catchAll([&] {
      active_.emplace(++lastNumber_, transfer);
      hasBegun = transfer->begin(session_.get(), inbox_, lastNumber_, Transfer::Clock::now());
    });
    if (hasBegun) continue;
    active_.erase(lastNumber_);
    transfer->end({});
    transfer->complete();
  }
}

void TransferLoop::dispatch(const std::vector<HttpEvent>& events) {
  for (const HttpEvent& event : events) {
    const auto found = active_.find(event.transfer);
    if (found == active_.end()) continue;  // has ended meanwhile
    bool goesOn = false;
    catchAll([&] { goesOn = found->second->advance(event, Transfer::Clock::now()); });
    if (!goesOn) finish(found, {});
  }
}

void TransferLoop::expire() {
  const Transfer::Time now = Transfer::Clock::now();
  for (auto next = active_.begin(); next != active_.end();) {
    const auto transfer = next++;
    if (transfer->second->deadline(options_) <= now) finish(transfer, "timed out");
  }
}

Transfer::Time TransferLoop::nextDeadline() const {
  Transfer::Time earliest = Transfer::Time::max();
  for (const auto& [number, transfer] : active_) {
    earliest = std::min(earliest, transfer->deadline(options_));
  }
  return earliest;
}

void TransferLoop::finish(std::map<std::uint64_t, std::shared_ptr<Transfer>>::iterator transfer,
                          const std::string& failure) {
  const auto over = transfer->second;
  active_.erase(transfer);
  over->end(failure);
  over->complete();
}

}  // namespace marbleway::platform
