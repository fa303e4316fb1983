#include "tools/collector/arguments.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <string>
#include <string_view>

namespace collector {
namespace {

int number(const std::string& text, int largest) {
  int value = -1;
  const char* end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, value);
  if (read.ec == std::errc() && read.ptr == end && value >= 0 && value <= largest) return value;
  throw UsageError("\"" + text + "\" is not a number from 0 to " + std::to_string(largest));
}

/// The page's token stands in an address and in a cookie.
void checkPageToken(const std::string& token) {
  const auto isPlain = [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-';
  };
  if (std::all_of(token.begin(), token.end(), isPlain)) return;
  throw UsageError("--page-token takes letters, digits and \"-\"");
}

}  // namespace

std::optional<Settings> readArguments(std::span<const char* const> arguments) {
  Settings settings;
  std::string token, port = "0", failBatches = "0";
  const std::map<std::string, std::string*, std::less<>> options{
      {"--data", &settings.dataFile},
      {"--token", &token},
      {"--port", &port},
      {"--host", &settings.host},
      {"--config", &settings.configFile},
      {"--page-token", &settings.pageToken},
      {"--fail-batches", &failBatches}};
  for (std::size_t i = 0; i < arguments.size(); i += 2) {
    const std::string name = arguments[i];
    if (name == "--help") return std::nullopt;
    const auto option = options.find(name);
    if (option == options.end()) throw UsageError("unknown argument \"" + name + "\"");
    if (i + 1 == arguments.size()) throw UsageError(name + " needs a value");
    *option->second = arguments[i + 1];
    if (option->second == &token) settings.tokens.push_back(token);
  }
  settings.port = number(port, 65'535);
  settings.failBatches = number(failBatches, 1'000'000);
  checkPageToken(settings.pageToken);
  if (settings.dataFile.empty()) throw UsageError("--data FILE is required");
  if (settings.tokens.empty()) throw UsageError("--token TOKEN is required");
  return settings;
}

}  // namespace collector
