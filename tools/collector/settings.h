#pragma once

#include <span>
#include <string>
#include <vector>

#include "tools/common/arguments.h"

namespace collector {

/// What --help prints.
inline constexpr auto kUsage = R"(usage: marbleway-collector --data FILE --token TOKEN [...]
Takes handshakes and batches, checks them strictly and stores their rows in a SQLite file.

  --data FILE         the SQLite file for what arrives (required)
  --token TOKEN       a project token to accept, given once for each (required)
  --port PORT         the port to listen on; 0, the default, takes a free one
  --host HOST         the address to listen on; 127.0.0.1 by default
  --page-token TEXT   what whoever opens the page must know; required where --host is not this
                      machine alone, and generated there if not given
  --allow-host NAME   a further name under which the page may be asked for, as a service name in a
                      network of containers; given once for each
  --config FILE       the answer to handshakes: a JSON object with the members "Config" and
                      "NetworkMonitoring"
  --fail-batches N    answer the first N batches with 503
  -h, --help, --version  print this, or the version

A value follows its option as the next word or after "=": --port 8080, --port=8080.
)";

struct Settings {
  std::string host = "127.0.0.1";
  int port = 0;  // 0: a free one
  std::string dataFile{};
  std::string configFile{};  // empty: the default configuration
  std::vector<std::string> tokens{};
  std::string pageToken{};                  // empty: one is generated where the page needs it
  std::vector<std::string> allowedHosts{};  // names besides `host` that a request may name
  int failBatches = 0;  // how many batches are refused before the first is accepted
};

/// The settings that the arguments ask for; throws a UsageError.
Settings settingsFrom(const tools::Arguments& arguments);

/// The command line of this program, after its name; throws a UsageError.
tools::Arguments readArguments(std::span<const char* const> words);

}  // namespace collector
