#pragma once

#include "Marbleway/platform/windows/http_client.h"

namespace marbleway::tests {

/// This system's client.
inline std::shared_ptr<platform::HttpClient> makeClient(const platform::HttpOptions& options = {}) {
  return platform::makeWinHttpClient(options);
}

}  // namespace marbleway::tests
