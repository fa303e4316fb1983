#include "tools/collector/settings.h"

#include <algorithm>
#include <string_view>

namespace collector {
namespace {

using tools::UsageError;

constexpr std::string_view kOptions[] = {"--data",       "--token",       "--port",
                                         "--host",       "--config",      "--page-token",
                                         "--allow-host", "--fail-batches"};

/// The page's token stands in an address and in a cookie.
void checkPageToken(const std::string& token) {
  const auto isPlain = [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-';
  };
  if (std::ranges::all_of(token, isPlain)) return;
  throw UsageError("--page-token takes letters, digits and \"-\"");
}

}  // namespace

tools::Arguments readArguments(std::span<const char* const> words) { return {words, kOptions}; }

Settings settingsFrom(const tools::Arguments& arguments) {
  if (!arguments.plain().empty()) {
    throw UsageError("unknown argument \"" + arguments.plain()[0] + "\"");
  }
  Settings settings;
  settings.host = arguments.value("--host", settings.host);
  settings.port = arguments.number("--port", 0, 65'535);
  settings.dataFile = arguments.value("--data");
  settings.configFile = arguments.value("--config");
  settings.tokens = arguments.all("--token");
  settings.pageToken = arguments.value("--page-token");
  settings.allowedHosts = arguments.all("--allow-host");
  settings.failBatches = arguments.number("--fail-batches", 0, 1'000'000);
  checkPageToken(settings.pageToken);
  if (settings.dataFile.empty()) throw UsageError("--data FILE is required");
  if (settings.tokens.empty()) throw UsageError("--token TOKEN is required");
  return settings;
}

}  // namespace collector
