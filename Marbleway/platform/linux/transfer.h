#pragma once

#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "Marbleway/platform/linux/http_client.h"

namespace marbleway::platform {

/// Gives a libcurl object back through `Free`.
template <auto Free>
struct CurlFree {
  template <class Object>
  void operator()(Object* object) const noexcept {
    Free(object);
  }
};

/// One POST: the request, libcurl's handle while it is under way, and what has come back.
class Transfer {
 public:
  using Done = std::function<void(std::optional<HttpResponse>)>;
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  /// Keeps the body where it is; libcurl sends it from there. Thread: any.
  Transfer(HttpRequest request, Done done);

  /// Sets out on `multi`, which outlives the exchange. False: there is no room for it.
  bool begin(CURLM* multi, const HttpOptions& options, Time now);
  /// Leaves `multi` and lets go of the body; only what is `complete` counts as an answer.
  void end(bool complete) noexcept;
  /// Runs `done`, after the end and once. What it throws ends here.
  void tell() noexcept;

  bool isUnderWayAs(const CURL* handle) const noexcept { return easy_.get() == handle; }
  /// When a byte last crossed in either direction, as far as this is asked after every step.
  Time lastByte(Time now) noexcept;

 private:
  static std::size_t keep(const char* bytes, std::size_t one, std::size_t size,
                          void* transfer) noexcept;

  bool prepare(CURL* easy, const HttpOptions& options) noexcept;

  HttpRequest request_;
  Done done_;
  std::unique_ptr<curl_slist, CurlFree<curl_slist_free_all>> headers_;
  std::unique_ptr<CURL, CurlFree<curl_easy_cleanup>> easy_;
  CURLM* multi_ = nullptr;
  HttpResponse answer_;
  bool isComplete_ = false;
  curl_off_t transferred_ = 0;  // bytes, in both directions
  Time lastByte_;
};

}  // namespace marbleway::platform
