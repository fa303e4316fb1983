#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Marbleway/platform/windows/exchange.h"
#include "Marbleway/platform/windows/http_client.h"

namespace marbleway::platform {

/// One POST: the request, WinHTTP's handles while it is in flight, and the response so far. It is
/// used by the loop's thread only, one step after another.
class Transfer {
 public:
  using Done = std::function<void(std::optional<HttpResponse>)>;
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  Transfer(HttpRequest request, Done done);

  /// Begins the exchange, whose events carry `number`. False after a failure.
  bool begin(HINTERNET session, const std::shared_ptr<HttpInbox>& inbox, std::uint64_t number,
             Time now);
  /// What follows an event. False when the exchange is over, complete or not.
  bool advance(const HttpEvent& event, Time now);
  /// Closes the handles. `failure` says why there is no response; empty: nothing new.
  void end(const std::string& failure) noexcept;
  /// Runs `done`, after the end and once. What it throws ends here.
  void complete() noexcept;

  /// When the exchange is out of time: in all, or since the last event.
  Time deadline(const HttpOptions& options) const noexcept;

 private:
  bool open(HINTERNET session, bool& isSecure);
  bool setOptions();
  bool addHeaders();
  bool writeBody();
  bool readHead();
  bool awaitBody();
  bool readBody(std::size_t available);
  bool receive(std::size_t size);
  bool fail(unsigned long error);

  HttpRequest request_;
  Done done_;
  InternetHandle connection_, handle_;
  HttpExchange* exchange_ = nullptr;  // WinHTTP's, as long as `handle_` is open
  std::size_t sentBytes_ = 0;         // of the request's body
  std::size_t receivedBytes_ = 0;     // of the response's body
  std::optional<std::uint64_t> announcedBytes_;
  HttpResponse response_;
  bool isComplete_ = false;
  std::string error_;  // why there is no response
  Time begun_, lastEvent_;
};

}  // namespace marbleway::platform
