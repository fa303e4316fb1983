// Any bytes to every validation, against slow readings of the rules that share no code with them:
// by hand where the library uses patterns, by a pattern where it reads by hand.
//
// seed: someone.else+tag@mail.example.org
// seed: https://www.example.org/a_b|c-d
// seed: +4930123456
// seed: -1,234,567.89e-10
// seed: myapp://open/here?a=%20#f

#include <re2/re2.h>

#include <algorithm>

#include "Marbleway/tracking/validation.h"
#include "fuzz/setting.h"

namespace {

using std::string_view;

constexpr string_view kDigits = "0123456789";
constexpr string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

/// True when `text` is made of letters, digits and `others`.
bool consistsOf(string_view text, string_view others) {
  return std::all_of(text.begin(), text.end(), [&](char c) {
    return kLetters.find(c) != string_view::npos || kDigits.find(c) != string_view::npos ||
           others.find(c) != string_view::npos;
  });
}

bool isEmail(string_view text, std::size_t longestEnding) {
  const std::size_t at = text.find('@'), dot = text.rfind('.');
  if (at == string_view::npos || at == 0 || dot == string_view::npos || dot < at + 2) return false;
  const string_view ending = text.substr(dot + 1);
  return consistsOf(text.substr(0, at), "._%+-") &&
         consistsOf(text.substr(at + 1, dot - at - 1), ".-") && ending.size() >= 2 &&
         ending.size() <= longestEnding && ending.find_first_not_of(kLetters) == string_view::npos;
}

/// After "://" any mix of word characters and marks, then parts: a separator and either word
/// characters or marks. A "|" separates and is a mark, so that all readings are followed at once.
bool isPlace(string_view text) {
  bool inMix = true, inWord = false, inMarks = false;
  for (const char c : text) {
    const bool isWord = consistsOf({&c, 1}, "_");
    const bool isMark = string_view("-|_").find(c) != string_view::npos;
    const bool separates = string_view(".|/").find(c) != string_view::npos;
    const bool begins = separates && (inMix || inWord || inMarks);
    inMix = inMix && (isWord || isMark);
    inWord = begins || (inWord && isWord);
    inMarks = begins || (inMarks && isMark);
  }
  return inWord || inMarks;
}

bool isWeb(string_view text) {
  for (const string_view scheme : {"http://", "https://"}) {
    if (text.starts_with(scheme)) return isPlace(text.substr(scheme.size()));
  }
  return false;
}

bool isPhone(string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  return text.size() >= 2 && text.size() <= 15 && text[0] != '0' &&
         text.find_first_not_of(kDigits) == string_view::npos;
}

bool isAbsolute(string_view text) {
  const std::size_t colon = text.find(':');
  return colon != string_view::npos && colon + 1 < text.size() &&
         kLetters.find(text[0]) != string_view::npos && consistsOf(text.substr(0, colon), "+.-") &&
         consistsOf(text.substr(colon + 1), "-._~:/?#[]@!$&'()*+,;=%");
}

/// In the C locale, where "," groups thousands.
bool isDecimal(string_view text) {
  static const RE2 pattern(
      R"([+-]?(([0-9]+|[0-9]{1,3}(,[0-9]{3})+)(\.[0-9]*)?|\.[0-9]+)([eE][+-]?[0-9]+)?)",
      RE2::Latin1);
  return RE2::FullMatch({text.data(), text.size()}, pattern);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace marbleway;
  using fuzz::require;
  const Text given(fuzz::textOf(data, size));
  const string_view text = given.view();  // up to a NUL
  require(isLinkEmail(given) == isEmail(text, 16), "an address to link");
  require(isAttributeEmail(given) == isEmail(text, 14), "an address as attribute");
  require(isWebAddress(given) == isWeb(text), "a web address");
  require(isPhoneNumber(given) == isPhone(text), "a phone number");
  require(isAbsoluteURL(given) == isAbsolute(text), "an absolute URL");
  require(isNumber(Value(given)) == isDecimal(text), "a number");
  return 0;
}
