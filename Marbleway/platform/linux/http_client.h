#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "../export.h"
#include "../http.h"

namespace marbleway::platform {

/// How a host's surroundings differ from what libcurl finds by itself. What does not hold (a file
/// that cannot be read, a proxy that is no URL or does not answer) ends requests as no answer.
struct HttpOptions {
  /// An exchange ends after this long without a byte in either direction.
  std::chrono::milliseconds silence = std::chrono::seconds(60);
  /// A file of PEM certificates: the authorities that are trusted, and no others. Empty: the
  /// system's.
  std::filesystem::path authorities{};
  /// "http://host:port", or another scheme of libcurl's: every request but those to loopback goes
  /// through it. Empty: the environment's (http_proxy, https_proxy, all_proxy, no_proxy).
  std::string proxy{};
};

/// The network through libcurl, on one thread that begins with the first request and sleeps while
/// none is in flight.
///
/// Requests overlap, 64 at most: one more ends the oldest as no answer. Loopback is never proxied;
/// a proxy of https requests sees the server's name and nothing else. When no thread can be had the
/// request ends as no answer, on the main loop in force, and the next one tries again.
///
/// Destroying the client ends what is in flight as no answer, runs each `done` and joins the
/// thread. The process may end or fork with requests in flight. From its end on the thread is kept
/// out of libcurl and what is posted is dropped; that takes as long as reading the certificates at
/// most. In a fork's child a client of its own works, the parent's is neither used nor destroyed.
MARBLEWAY_EXPORT std::shared_ptr<HttpClient> makeCurlClient(HttpOptions options = {});

}  // namespace marbleway::platform
