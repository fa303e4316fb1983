// Any bytes as a deep link: its identifier as a slow reading finds it, in a row, or no row.
//
// seed: app://open/?mrbw_dlid=a%20b+c&x=1#mrbw_dlid=no
// seed: ?mrbw_dlid=1&mrbw_dlid=%C3%BC=2&mrbw_dlid

#include <cstdlib>
#include <optional>

#include "Marbleway/core/state.h"
#include "Marbleway/tracking/operations.h"
#include "fuzz/setting.h"
#include "fuzz/strict_json.h"

namespace {

using namespace marbleway;
using std::string_view;

std::vector<std::string> split(string_view text, char mark) {
  std::vector<std::string> pieces(1);
  for (const char c : text) {
    if (c == mark) {
      pieces.emplace_back();
    } else {
      pieces.back() += c;
    }
  }
  return pieces;
}

std::optional<std::string> decoded(const std::string& text) {
  constexpr string_view kHex = "0123456789ABCDEFabcdef";
  const std::vector<std::string> pieces = split(text, '%');
  std::string result = pieces[0];
  for (std::size_t i = 1; i < pieces.size(); ++i) {
    const std::string digits = pieces[i].substr(0, 2);
    if (digits.size() < 2 || digits.find_first_not_of(kHex) != std::string::npos) return {};
    result += static_cast<char>(std::strtol(digits.c_str(), nullptr, 16));
    result += pieces[i].substr(2);
  }
  return result;
}

/// The query's pieces one after another; the last one that names the identifier decides.
std::optional<std::string> identifierIn(string_view link) {
  const std::string page = split(link, '#')[0];
  const std::size_t query = page.find('?');
  std::optional<std::string> identifier;
  if (query == std::string::npos) return identifier;
  for (const std::string& piece : split(string_view(page).substr(query + 1), '&')) {
    const std::vector<std::string> parts = split(piece, '=');
    if (parts.size() < 2 || parts[0] != "mrbw_dlid") continue;
    std::string value = parts[1];
    for (char& c : value) c = c == '+' ? ' ' : c;
    identifier = decoded(value);
    if (identifier && !fuzz::isUTF8(*identifier)) identifier.reset();
  }
  return identifier;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto& setting = fuzz::settingWithStores();
  const Text link(fuzz::textOf(data, size));
  isLoggingEnabled = true;
  trackDeepLink(link);

  std::vector<std::vector<std::string>> expected;
  if (const auto identifier = identifierIn(fuzz::withReplacements(link.view()))) {
    expected.push_back({identifier->substr(0, identifier->find('\0'))});
  }
  const bool tellsOfRow = !setting.console->take().empty();
  fuzz::require(tellsOfRow == !expected.empty(), "a row is written for an identifier");
  if (!tellsOfRow) return 0;
  fuzz::require(fuzz::takeRows("mrbw_v2_deep_links", {"DeepLinkID"}) == expected,
                "the identifier is in its row");
  return 0;
}
