#pragma once

#include <cstddef>
#include <string>

#include "Marbleway/platform/windows/http_client.h"

namespace marbleway::tests {

/// Wine goes by a cut header or chunk, which Windows refuses, and stops at "100 Continue".
inline constexpr std::size_t kUntestedCases = 3;

/// This system's client.
inline std::shared_ptr<platform::HttpClient> makeClient(const platform::HttpOptions& options = {}) {
  return platform::makeWinHttpClient(options);
}

/// Those of a request of this size with a user, the headers "Accept", "empty" and "token". WinHTTP
/// has headers of Unicode: a byte that is none becomes U+FFFD.
inline std::string headersOf(const std::string& host, std::size_t size) {
  return "Accept: a/b\r\nempty: \r\ntoken: t \xEF\xBF\xBD\r\nAuthorization: Basic YUBiOmM=\r\n"
         "Host: " +
         host + "\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n";
}

}  // namespace marbleway::tests
