#pragma once

#include <cstddef>

#include "Marbleway/platform/linux/http_client.h"

namespace marbleway::tests {

/// How many of the last cases of responses this system is not tested with.
inline constexpr std::size_t kUntestedCases = 0;

/// This system's client.
inline std::shared_ptr<platform::HttpClient> makeClient(const platform::HttpOptions& options = {}) {
  return platform::makeCurlClient(options);
}

}  // namespace marbleway::tests
