#pragma once

#include "Marbleway/platform/linux/http_client.h"

namespace marbleway::tests {

/// This system's client.
inline std::shared_ptr<platform::HttpClient> makeClient(const platform::HttpOptions& options = {}) {
  return platform::makeCurlClient(options);
}

}  // namespace marbleway::tests
