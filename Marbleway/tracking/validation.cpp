#include "Marbleway/tracking/validation.h"

#include <re2/re2.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdint>
#include <locale>
#include <memory>
#include <stdexcept>

#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/json.h"
#include "Marbleway/platform/utf8.h"

namespace marbleway {
namespace {

// A pattern that is compiled at its first use and never destroyed. It prints nothing. Compiling and
// matching take locks.
class Pattern {
 public:
  constexpr explicit Pattern(const char* text) : text_(text) {}

  bool matches(const Text& text) {
    const platform::ForkSection section;
    const std::string_view view = text.view();
    return !text.isAbsent() && RE2::FullMatch({view.data(), view.size()}, compiled());
  }

 private:
  const RE2& compiled() {
    RE2* present = compiled_;
    if (present == nullptr) {
      auto made = std::make_unique<RE2>(text_, RE2::Quiet);
      if (compiled_.compare_exchange_strong(present, made.get())) present = made.release();
    }
    return *present;
  }

  const char* const text_;
  std::atomic<RE2*> compiled_{nullptr};
};

// The pattern of a linked address allows endings of up to 16 letters, that of the attribute 14.
constinit Pattern linkEmail(R"([A-Z0-9a-z._%+-]+@[A-Za-z0-9.-]+\.[A-Za-z]{2,16})");
constinit Pattern attributeEmail(R"([A-Z0-9a-z._%+-]+@[A-Za-z0-9.-]+\.[A-Za-z]{2,14})");
constinit Pattern webAddress(
    R"((http|https)://((\w)*|([0-9]*)|([-|_])*)+([\.|/]((\w)*|([0-9]*)|([-|_])*))+)");
constinit Pattern phoneNumber(R"(^\+?[1-9]\d{1,14}$)");
constinit Pattern absoluteURL(R"([A-Za-z][A-Za-z0-9+.-]*:[A-Za-z0-9\-._~:/?#\[\]@!$&'()*+,;=%]+)");

// The name of the locale's part that concerns numbers.
std::string numericName(const std::locale& locale) {
  constexpr std::string_view kCategory = "LC_NUMERIC=";
  std::string name = locale.name();  // "C", or "LC_CTYPE=C;LC_NUMERIC=de_DE.UTF-8;..."
  const std::size_t start = name.find(kCategory);
  if (start == std::string::npos) return name;
  name.erase(0, start + kCategory.size());
  return name.substr(0, name.find(';'));
}

Punctuation readUserPunctuation() {
  try {
    return punctuationOf(std::locale(""));
  } catch (const std::runtime_error&) {
    return punctuationOf(std::locale::classic());  // the environment names a missing locale
  }
}

const Punctuation& userPunctuation() {
  const platform::ForkSection section;  // the C library's lock of locales
  static const NoDestructor<Punctuation> marks(readUserPunctuation());
  return marks.value;
}

// The number of digits in a group, the last group being 0.
std::size_t groupSize(std::string_view grouping, std::size_t group) {
  const char size = grouping[std::min(group, grouping.size() - 1)];
  return size > 0 && size < CHAR_MAX ? static_cast<std::size_t>(size) : SIZE_MAX;
}

// True for one row of digits, and for groups of which the first may be shorter than its size.
bool isInteger(std::string_view text, const Punctuation& marks) {
  for (std::size_t group = 0;; ++group) {
    const std::size_t mark =
        marks.separator.empty() ? std::string_view::npos : text.rfind(marks.separator);
    if (mark == std::string_view::npos) {
      return group == 0 || (!text.empty() && text.size() <= groupSize(marks.grouping, group));
    }
    const std::size_t digits = text.size() - mark - marks.separator.size();
    if (digits != groupSize(marks.grouping, group)) return false;
    text = text.substr(0, mark);
  }
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Removes digits from the start of `text`; their number.
std::size_t skipDigits(std::string_view& text) {
  const auto count =
      static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isDigit) - text.begin());
  text.remove_prefix(count);
  return count;
}

bool skip(std::string_view& text, std::string_view mark) {
  if (mark.empty() || !text.starts_with(mark)) return false;
  text.remove_prefix(mark.size());
  return true;
}

void skipSign(std::string_view& text) { skip(text, "+") || skip(text, "-"); }

}  // namespace

Punctuation punctuationOf(const std::locale& locale) {
  const std::string name = numericName(locale);
  if (name == "C" || name == "POSIX" || name.starts_with("C.")) return {".", ",", "\3"};
  const auto& facet = std::use_facet<std::numpunct<wchar_t>>(locale);
  Punctuation marks{encoded(static_cast<char32_t>(facet.decimal_point())),
                    encoded(static_cast<char32_t>(facet.thousands_sep())), facet.grouping()};
  if (marks.grouping.empty()) marks.separator.clear();
  return marks;
}

bool isDecimal(std::string_view text, const Punctuation& marks) {
  skipSign(text);
  const std::string_view start = text;
  std::size_t digits = skipDigits(text);
  while (digits > 0 && skip(text, marks.separator)) skipDigits(text);
  if (!isInteger(start.substr(0, start.size() - text.size()), marks)) return false;
  if (skip(text, marks.decimalPoint)) digits += skipDigits(text);
  if (digits == 0) return false;
  if (skip(text, "e") || skip(text, "E")) {
    skipSign(text);
    if (skipDigits(text) == 0) return false;
  }
  return text.empty();
}

bool isLinkEmail(const Text& text) { return linkEmail.matches(text); }

bool isAttributeEmail(const Text& text) { return attributeEmail.matches(text); }

bool isWebAddress(const Text& text) { return webAddress.matches(text); }

bool isPhoneNumber(const Text& text) { return phoneNumber.matches(text); }

bool isAbsoluteURL(const Text& text) { return absoluteURL.matches(text); }

bool isNumber(const Value& value) {
  if (const auto* text = value.as<std::string>()) return isDecimal(*text, userPunctuation());
  return value.as<std::int64_t>() != nullptr || value.as<double>() != nullptr;
}

std::optional<std::string_view> missingKey(const Dictionary& dictionary,
                                           std::initializer_list<std::string_view> keys) {
  const auto* missing = std::find_if(keys.begin(), keys.end(), [&](std::string_view key) {
    return dictionary.find(key) == nullptr;
  });
  return missing != keys.end() ? std::optional(*missing) : std::nullopt;
}

std::optional<std::string> columnText(const Value& value) {
  if (value.isNull()) return std::nullopt;
  if (const auto* text = value.as<std::string>()) return *text;
  if (const auto* flag = value.as<bool>()) return *flag ? "1" : "0";
  if (const auto* real = value.as<double>()) return json::textOf(*real);
  return toJSON(value);
}

}  // namespace marbleway
