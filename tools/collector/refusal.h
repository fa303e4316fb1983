#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>

namespace collector {

/// Why a request is refused: the status of its answer and the first thing that is wrong with it.
struct Refusal : std::runtime_error {
  Refusal(int code, const std::string& fault) : std::runtime_error(fault), status(code) {}
  int status;
};

/// A refusal that was asked for: nothing is wrong with the request.
struct AskedRefusal : Refusal {
  explicit AskedRefusal(int code) : Refusal(code, "refused as asked") {}
};

/// What a client sent, fit for a line of its own: ASCII, without control characters ('?' stands
/// for any other byte), at most 80 characters.
inline std::string printable(std::string_view sent) {
  constexpr std::size_t kMax = 80;
  std::string line(sent.substr(0, kMax));
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  if (sent.size() > kMax) line.replace(kMax - 3, 3, "...");
  return line;
}

inline std::string inQuotes(std::string_view sent) {
  return std::string("\"").append(printable(sent)).append("\"");
}

}  // namespace collector
