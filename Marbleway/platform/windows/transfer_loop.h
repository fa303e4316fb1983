#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "Marbleway/platform/windows/transfer.h"
#include "Marbleway/platform/worker.h"

namespace marbleway::platform {

/// Drives exchanges on the one thread that calls `run`, after WinHTTP's reports; it sleeps while
/// there is nothing to do. The other functions are called on any thread.
class TransferLoop : public Work {
 public:
  explicit TransferLoop(HttpOptions options) : options_(options) {}

  /// Drives exchanges until `stop`, and completes each with no lock held.
  void run() override;
  /// Lets `run` end every exchange as no response, and return.
  void stop() noexcept override;
  /// Begins an exchange.
  void take(std::shared_ptr<Transfer> transfer);

 private:
  using Transfers = std::vector<std::shared_ptr<Transfer>>;

  bool step();
  void admit(const Transfers& arrived);
  void dispatch(const std::vector<HttpEvent>& events);
  void expire();
  Transfer::Time nextDeadline() const;
  void finish(std::map<std::uint64_t, std::shared_ptr<Transfer>>::iterator transfer,
              const std::string& failure);

  const HttpOptions options_;
  const std::shared_ptr<HttpInbox> inbox_ = std::make_shared<HttpInbox>();
  Transfers pending_;        // guarded by the inbox's mutex
  bool isStopping_ = false;  // too

  // The thread's own.
  InternetHandle session_;  // none until it can be had
  std::map<std::uint64_t, std::shared_ptr<Transfer>> active_;
  std::uint64_t lastNumber_ = 0;
};

}  // namespace marbleway::platform
