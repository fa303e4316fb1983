#pragma once

#include <cstddef>

#include "Marbleway/platform/windows/http_client.h"

namespace marbleway::tests {

/// Wine goes by a cut header or chunk, which Windows refuses, and stops at "100 Continue".
inline constexpr std::size_t kUntestedCases = 3;

/// This system's client.
inline std::shared_ptr<platform::HttpClient> makeClient(const platform::HttpOptions& options = {}) {
  return platform::makeWinHttpClient(options);
}

}  // namespace marbleway::tests
