#include "Marbleway/tracking/validation.h"

#include <re2/re2.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <locale>
#include <memory>

#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/json.h"

namespace marbleway {
namespace {

// A pattern that is compiled when first needed and never torn down. Says nothing of its own on
// standard error, whatever it is given. Matching takes locks of the compiled form, which a fork's
// child may find taken for ever: it forgets that form and compiles its own.
class Pattern {
 public:
  constexpr explicit Pattern(const char* text) : text_(text) {}

  bool matches(const Text& text) {
    const std::string_view view = text.view();
    return !text.isAbsent() && RE2::FullMatch({view.data(), view.size()}, form().compiled);
  }
  void forget() noexcept {
    if (Form* const form = form_.exchange(nullptr)) former_ = form;
  }

 private:
  struct Form {
    Form(const char* text, const Form* ancestor) : compiled(text, RE2::Quiet), former(ancestor) {}

    RE2 compiled;
    const Form* former;  // an ancestor's, in reach of leak checkers
  };

  const Form& form() {
    Form* form = form_;
    if (form == nullptr) {
      auto made = std::make_unique<Form>(text_, former_);
      if (form_.compare_exchange_strong(form, made.get())) form = made.release();
    }
    return *form;
  }

  const char* const text_;
  std::atomic<Form*> form_{nullptr};
  const Form* former_ = nullptr;
};

// The pattern of a linked address allows endings of up to 16 letters, that of the attribute 14.
constinit Pattern linkEmail(R"([A-Z0-9a-z._%+-]+@[A-Za-z0-9.-]+\.[A-Za-z]{2,16})");
constinit Pattern attributeEmail(R"([A-Z0-9a-z._%+-]+@[A-Za-z0-9.-]+\.[A-Za-z]{2,14})");
constinit Pattern webAddress(
    R"((http|https)://((\w)*|([0-9]*)|([-|_])*)+([\.|/]((\w)*|([0-9]*)|([-|_])*))+)");
constinit Pattern phoneNumber(R"(^\+?[1-9]\d{1,14}$)");
constinit Pattern absoluteURL(R"([A-Za-z][A-Za-z0-9+.-]*:[A-Za-z0-9\-._~:/?#\[\]@!$&'()*+,;=%]+)");

struct Punctuation {
  char decimalPoint = '.';
  char thousandsSeparator = ',';
};

Punctuation readPunctuation() {
  try {
    const std::locale locale("");
    const auto& marks = std::use_facet<std::numpunct<char>>(locale);
    return {marks.decimal_point(), marks.thousands_sep()};
  } catch (const std::runtime_error&) {
    return {};  // the environment names a locale that is not installed
  }
}

const Punctuation& userPunctuation() {
  static const Punctuation marks = readPunctuation();
  return marks;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

std::size_t skipDigits(std::string_view& text) {
  const auto count =
      static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isDigit) - text.begin());
  text.remove_prefix(count);
  return count;
}

bool skip(std::string_view& text, std::string_view anyOf) {
  if (text.empty() || anyOf.find(text[0]) == std::string_view::npos) return false;
  text.remove_prefix(1);
  return true;
}

// A sign, digits in a row or in groups of three, a fraction, an exponent.
bool isDecimal(std::string_view text) {
  const Punctuation& marks = userPunctuation();
  skip(text, "+-");
  std::size_t digits = skipDigits(text);
  const bool mayBeGrouped = digits >= 1 && digits <= 3;
  while (mayBeGrouped && skip(text, {&marks.thousandsSeparator, 1})) {
    if (skipDigits(text) != 3) return false;
  }
  if (skip(text, {&marks.decimalPoint, 1})) digits += skipDigits(text);
  if (digits > 0 && skip(text, "eE")) {
    skip(text, "+-");
    if (skipDigits(text) == 0) return false;
  }
  return digits > 0 && text.empty();
}

}  // namespace

void settleValidation() noexcept {
  catchAll([] { userPunctuation(); });
}

void renewValidation() noexcept {
  for (Pattern* pattern : {&linkEmail, &attributeEmail, &webAddress, &phoneNumber, &absoluteURL}) {
    pattern->forget();
  }
}

bool isLinkEmail(const Text& text) { return linkEmail.matches(text); }

bool isAttributeEmail(const Text& text) { return attributeEmail.matches(text); }

bool isWebAddress(const Text& text) { return webAddress.matches(text); }

bool isPhoneNumber(const Text& text) { return phoneNumber.matches(text); }

bool isAbsoluteURL(const Text& text) { return absoluteURL.matches(text); }

bool isNumber(const Value& value) {
  if (const auto* text = value.as<std::string>()) return isDecimal(*text);
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
