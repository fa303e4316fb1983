#pragma once

#include <chrono>
#include <memory>

#include "../export.h"
#include "../http.h"

namespace marbleway::platform {

/// The limits of an exchange.
struct HttpOptions {
  /// An exchange ends after this long without progress in either direction.
  std::chrono::milliseconds silence = std::chrono::seconds(60);
  /// An exchange ends after this long in all.
  std::chrono::milliseconds total = std::chrono::minutes(5);
};

/// The network through WinHTTP, with the system's TLS, authorities and proxies, on one thread that
/// begins with the first request and sleeps while none is in flight.
///
/// Requests overlap. No cookie, no stored credential and no client certificate is sent; loopback is
/// never proxied. When no thread can be started the request ends without a response, on the
/// installed main loop, and the next one tries again.
///
/// Destroying the client ends what is in flight without a response, runs each `done` and joins the
/// thread. The process may end with requests in flight.
MARBLEWAY_EXPORT std::shared_ptr<HttpClient> makeWinHttpClient(HttpOptions options = {});

}  // namespace marbleway::platform
