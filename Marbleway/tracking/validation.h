#pragma once

#include <initializer_list>
#include <locale>
#include <optional>
#include <string>
#include <string_view>

#include "Marbleway/platform/value.h"

namespace marbleway {

// True for a text that matches the pattern of that name as a whole. An absent text matches none.
// The time is linear in the length of the text.
bool isLinkEmail(const Text& text);
bool isAttributeEmail(const Text& text);
bool isWebAddress(const Text& text);
bool isPhoneNumber(const Text& text);
bool isAbsoluteURL(const Text& text);

/// How a locale writes numbers; both marks in UTF-8.
struct Punctuation {
  std::string decimalPoint;
  /// Between groups of digits; empty when the locale has none.
  std::string separator;
  /// Digits a group, the last group's first: "\3" is 1,234,567 and "\3\2" is 12,34,567. The last
  /// byte counts for all further groups; CHAR_MAX, or a byte below 1, for a group without end.
  std::string grouping;
};
/// The punctuation of `locale`. The C locale's groups thousands by ",".
Punctuation punctuationOf(const std::locale& locale);

/// True for a text that is a number as a whole: a sign, digits in a row or in the locale's groups,
/// a fraction, an exponent.
bool isDecimal(std::string_view text, const Punctuation& marks);

/// True for a number, and for a text that is one in the user's locale (LC_ALL, LC_NUMERIC, LANG).
bool isNumber(const Value& value);

/// The first of `keys` that `dictionary` does not hold; absent when it holds all.
std::optional<std::string_view> missingKey(const Dictionary& dictionary,
                                           std::initializer_list<std::string_view> keys);

/// The text of a column: numbers as in JSON, booleans as 1 and 0, arrays and dictionaries as JSON.
/// Absent for null, and for an array or a dictionary that holds a number that is not finite.
std::optional<std::string> columnText(const Value& value);

}  // namespace marbleway
