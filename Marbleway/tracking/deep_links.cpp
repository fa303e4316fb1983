#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/utf8.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"

using namespace marbleway;

namespace {

constexpr std::string_view kIdentifierKey = "mrbw_dlid";

// Removes the text up to the first `mark` from `rest`, the mark included, and returns the text.
std::string_view takeUntil(std::string_view& rest, char mark) {
  const std::size_t end = rest.find(mark);
  const std::string_view taken = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return taken;
}

// The text after "?" and before any "#", still encoded.
std::string_view queryOf(std::string_view url) {
  std::string_view rest = takeUntil(url, '#');
  takeUntil(rest, '?');
  return rest;
}

// "+" is a space and "%41" an A; absent when an escape is malformed or the bytes are no UTF-8.
std::optional<std::string> decoded(std::string_view value) {
  std::string text;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '%') {
      text += value[i] == '+' ? ' ' : value[i];
      continue;
    }
    unsigned char byte = 0;
    const char* digits = value.data() + i + 1;
    const char* end = digits + std::min<std::size_t>(2, value.size() - i - 1);
    if (std::from_chars(digits, end, byte, 16).ptr != digits + 2) return std::nullopt;
    text += static_cast<char>(byte);
    i += 2;
  }
  return validPrefix(text) == text.size() ? std::optional(text) : std::nullopt;
}

// The decoded value of the query's last "mrbw_dlid"; an undecodable one counts as none. A piece
// without "=" is skipped, and what follows a second "=" is dropped. Keys are not decoded.
std::optional<std::string> deepLinkIdentifier(std::string_view query) {
  std::optional<std::string> identifier;
  while (!query.empty()) {
    std::string_view piece = takeUntil(query, '&');
    const bool hasValue = piece.find('=') != std::string_view::npos;
    if (takeUntil(piece, '=') == kIdentifierKey && hasValue) {
      identifier = decoded(takeUntil(piece, '='));
    }
  }
  return identifier;
}

}  // namespace

void Marbleway::trackDeepLink(Text url) noexcept {
  operation([&] {
    const std::string valid = repaired(url.view());
    const auto identifier = deepLinkIdentifier(queryOf(valid));
    if (!identifier) return;

    insertRow(
        "insert into mrbw_v2_deep_links (id, SessionID, DeepLinkID, OperatingSystem, UTCTimeStamp) VALUES (?, ?, ?, ?, ?)",
        {sessionID.load(), identifier, "iOS", getUTCTimeStamp()});
    console::message("Deep Link Tracked");
  });
}
