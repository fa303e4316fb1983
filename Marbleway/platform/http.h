#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "buffer.h"
#include "export.h"

namespace marbleway::platform {

/// A response with a longer body than this counts as no response.
inline constexpr std::size_t kMaxResponseBytes = 1U << 20U;

/// One POST.
struct HttpRequest {
  std::string url;                                           ///< http or https
  std::vector<std::pair<std::string, std::string>> headers;  ///< Name and value, in order.
  Buffer body;                                               ///< What is posted.
  /// Bytes of the response's body that are wanted; the rest is received and dropped.
  std::size_t maxResponseBytes = kMaxResponseBytes;
  /// Where the client writes, before `done` runs, why no response came; null: not wanted.
  std::shared_ptr<std::string> error{};
};

/// A response whose transfer is complete.
struct HttpResponse {
  long status = 0;   ///< The HTTP status.
  std::string body;  ///< Its first `maxResponseBytes`.
};

/// The network. It verifies certificates and host names, follows no redirect and sends no "Expect".
class MARBLEWAY_EXPORT HttpClient {
 public:
  virtual ~HttpClient() = default;

  /// Posts `request` and returns at once; requests overlap. `done` runs exactly once, on another
  /// thread or later on the main loop. It is given nothing when no response came, whatever the
  /// reason: no network, refused, cut off, 60 s without a byte, 5 minutes in all, a body of more
  /// than `kMaxResponseBytes`. At the process's end it may not run any more.
  virtual void post(HttpRequest request, std::function<void(std::optional<HttpResponse>)> done) = 0;
};

}  // namespace marbleway::platform
