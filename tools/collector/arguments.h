#pragma once

#include <optional>
#include <span>
#include <stdexcept>

#include "tools/collector/collector.h"

namespace collector {

/// What --help prints.
inline constexpr auto kUsage = R"(usage: marbleway-collector --data FILE --token TOKEN [...]
Takes handshakes and batches, checks them strictly and keeps their rows in a SQLite file.

  --data FILE         the SQLite file that keeps what arrives (required)
  --token TOKEN       a project token to accept, given once for each (required)
  --port PORT         the port to listen on; 0, the default, takes a free one
  --host HOST         the address to listen on; 127.0.0.1 by default
  --page-token TEXT   what whoever opens the page must know; needed, and made up if not given,
                      where --host is not this machine alone
  --config FILE       what handshakes are answered with: a JSON object with the members
                      "Config" and "NetworkMonitoring"
  --fail-batches N    answer the first N batches with 503
)";

/// A command line that makes no sense; what() says why.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The settings that the arguments (after the program's name) ask for; nothing when they ask for
/// help. Throws a UsageError.
std::optional<Settings> readArguments(std::span<const char* const> arguments);

}  // namespace collector
