#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "Marbleway/platform/linux/http_client.h"

namespace marbleway::platform {

/// Frees a libcurl object with `Free`.
template <auto Free>
struct CurlFree {
  template <class Object>
  void operator()(Object* object) const noexcept {
    Free(object);
  }
};

/// One POST: the request, libcurl's handle while it is in flight, and the response so far.
class Transfer {
 public:
  using Done = std::function<void(std::optional<HttpResponse>)>;
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  /// The body is not copied; libcurl sends it from the request's buffer. Thread: any.
  Transfer(HttpRequest request, Done done);

  /// Begins the exchange on `multi`, which outlives it. False when libcurl has no memory for it.
  bool begin(CURLM* multi, const HttpOptions& options, Time now);
  /// Removes the exchange from `multi` and frees the body. There is a response if `failure` is
  /// null; else it says why there is none, where libcurl has not said so itself.
  void end(const char* failure) noexcept;
  /// Runs `done`, after the end and once. What it throws ends here.
  void complete() noexcept;

  bool uses(const CURL* handle) const noexcept { return easy_.get() == handle; }
  /// When the exchange is out of time: in all, or since the last byte in either direction. Exact as
  /// long as it is asked after each step.
  Time deadline(const HttpOptions& options, Time now) noexcept;

 private:
  static std::size_t onBody(const char* bytes, std::size_t one, std::size_t size,
                            void* transfer) noexcept;

  bool prepare(CURL* easy, const HttpOptions& options) noexcept;

  HttpRequest request_;
  Done done_;
  std::unique_ptr<curl_slist, CurlFree<curl_slist_free_all>> headers_;
  std::unique_ptr<CURL, CurlFree<curl_easy_cleanup>> easy_;
  CURLM* multi_ = nullptr;
  HttpResponse response_;
  std::size_t receivedBytes_ = 0;  // of the response's body
  bool isComplete_ = false;
  std::array<char, CURL_ERROR_SIZE> error_{};  // why there is no response
  curl_off_t transferredBytes_ = 0;            // in both directions
  Time begun_, lastByte_;
};

}  // namespace marbleway::platform
