#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "../export.h"
#include "../http.h"

namespace marbleway::platform {

/// What a host changes of libcurl's defaults. A file that cannot be read, and a proxy that is no
/// URL or does not respond, end every request without a response.
struct HttpOptions {
  /// An exchange ends after this long without a byte in either direction.
  std::chrono::milliseconds silence = std::chrono::seconds(60);
  /// An exchange ends after this long in all.
  std::chrono::milliseconds total = std::chrono::minutes(5);
  /// A file of PEM certificates: the authorities that are trusted, and no others. Empty: the
  /// system's. A changed file counts after a day at most.
  std::filesystem::path authorities{};
  /// "http://host:port", or another scheme of libcurl's: every request but those to loopback goes
  /// through it. Empty: the environment's (http_proxy, https_proxy, all_proxy, no_proxy).
  std::string proxy{};
};

/// The network through libcurl, on one thread that begins with the first request and sleeps while
/// none is in flight.
///
/// Requests overlap. Loopback is never proxied; a proxy of https requests receives the server's
/// name and nothing else. When no thread can be started the request ends without a response, on the
/// installed main loop, and the next one tries again.
///
/// Destroying the client ends what is in flight without a response, runs each `done` and joins the
/// thread. The process may end or fork with requests in flight. Once it ends, the thread does not
/// call libcurl any more, and what is posted is dropped; the end waits for a call of libcurl, at
/// most as long as reading the certificates takes. In a fork's child the client starts again,
/// without the parent's requests.
MARBLEWAY_EXPORT std::shared_ptr<HttpClient> makeCurlClient(HttpOptions options = {});

}  // namespace marbleway::platform
