#pragma once

#include <cstddef>
#include <string>

#include "Marbleway/platform/linux/http_client.h"

namespace marbleway::tests {

/// How many of the last cases of responses this system is not tested with.
inline constexpr std::size_t kUntestedCases = 0;

/// This system's client.
inline std::shared_ptr<platform::HttpClient> makeClient(const platform::HttpOptions& options = {}) {
  return platform::makeCurlClient(options);
}

/// Those of a request of this size with a user, the headers "Accept", "empty" and "token".
inline std::string headersOf(const std::string& host, std::size_t size) {
  return "Host: " + host +
         "\r\nAuthorization: Basic YUBiOmM=\r\nAccept: a/b\r\nempty:\r\ntoken: t \xFF\r\n"
         "Content-Length: " +
         std::to_string(size) + "\r\n\r\n";
}

}  // namespace marbleway::tests
