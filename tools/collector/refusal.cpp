#include "tools/collector/refusal.h"

#include <algorithm>

namespace collector {

std::string printable(std::string_view sent) {
  constexpr std::size_t kLongest = 80;
  std::string line(sent.substr(0, kLongest));
  std::replace_if(line.begin(), line.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  if (sent.size() > kLongest) line.replace(kLongest - 3, 3, "...");
  return line;
}

std::string quoted(std::string_view sent) { return std::string("\"").append(printable(sent)) + '"'; }

}  // namespace collector
