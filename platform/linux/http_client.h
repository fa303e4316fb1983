#pragma once

#include <chrono>
#include <memory>

#include "platform/http.h"

namespace marbleway::platform {

/// The network through libcurl, on one thread that begins with the first request and sleeps while
/// none is in flight.
///
/// Requests overlap, 64 at most: one more ends the oldest as no answer, and so does `silence`
/// without a byte in either direction. Proxies are the environment's; loopback is never proxied.
/// When no thread can be had the request is dropped and its `done` never runs.
///
/// Destroying the client ends what is in flight as no answer, runs each `done` and joins the
/// thread. The process may end or fork with requests in flight. From its end on the thread is kept
/// out of libcurl and what is posted is dropped; that takes as long as reading the certificates at
/// most. In a fork's child a client of its own works, the parent's is neither used nor destroyed.
std::shared_ptr<HttpClient> makeCurlClient(
    std::chrono::milliseconds silence = std::chrono::seconds(60));

}  // namespace marbleway::platform
