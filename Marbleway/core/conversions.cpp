#include "Marbleway/core/conversions.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <limits>
#include <string_view>
#include <system_error>

namespace marbleway {
namespace {

constexpr std::string_view kBlanks = " \t\n\v\f\r";

std::string_view withoutBlanks(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text;
}

bool isTrueText(std::string_view text) {
  text = withoutBlanks(text);
  if (text.starts_with('+') || text.starts_with('-')) text.remove_prefix(1);
  text.remove_prefix(std::min(text.find_first_not_of('0'), text.size()));
  return !text.empty() && std::string_view("YyTt123456789").find(text[0]) != std::string_view::npos;
}

// The number of `text`, which is beyond the range of a double: infinite, or 0 when it is too small.
double outOfRange(std::string_view text) {
  const std::size_t end = std::min(text.find_first_of("eE"), text.size());
  const std::string_view digits = text.substr(0, end);
  const auto point = static_cast<double>(std::min(digits.find('.'), digits.size()));
  const auto first = static_cast<double>(digits.find_first_of("123456789"));
  int exponent = 0;
  if (end < text.size()) {
    const bool isNegative = text.substr(end + 1).starts_with('-');
    const char* const start = text.data() + end + (text.substr(end + 1).starts_with('+') ? 2 : 1);
    const auto [last, error] = std::from_chars(start, text.data() + text.size(), exponent);
    if (error != std::errc()) exponent = isNegative ? INT_MIN : INT_MAX;
  }
  if (point - first + exponent < 0) return 0;
  return text.starts_with('-') ? -HUGE_VAL : HUGE_VAL;
}

double leadingNumber(std::string_view text) {
  text = withoutBlanks(text);
  const std::size_t first = text.starts_with('+') || text.starts_with('-') ? 1 : 0;
  // `from_chars` reads "inf" and "nan", which are no numbers here.
  if (text.substr(first).find_first_of("0123456789.") != 0) return 0;
  if (text.starts_with('+')) text.remove_prefix(1);  // `from_chars` refuses it
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc::result_out_of_range) return number;
  return outOfRange({text.data(), end});
}

}  // namespace

bool toBool(const Value* value) {
  if (value == nullptr) return false;
  if (const auto* flag = value->as<bool>()) return *flag;
  if (const auto* text = value->as<std::string>()) return isTrueText(*text);
  return toDouble(value) != 0;
}

double toDouble(const Value* value) {
  if (value == nullptr) return 0;
  if (const auto* flag = value->as<bool>()) return *flag ? 1 : 0;
  if (const auto* integer = value->as<std::int64_t>()) return static_cast<double>(*integer);
  if (const auto* real = value->as<double>()) return *real;
  if (const auto* text = value->as<std::string>()) return leadingNumber(*text);
  return 0;
}

std::int64_t toInteger(const Value* value) {
  using Limits = std::numeric_limits<std::int64_t>;
  constexpr double kBeyond = 9223372036854775808.0;  // 2 to the power of 63
  const double real = toDouble(value);
  if (std::isnan(real)) return 0;
  if (real >= kBeyond) return Limits::max();
  return real < -kBeyond ? Limits::min() : static_cast<std::int64_t>(real);
}

float toFloat(const Value* value) {
  using Limits = std::numeric_limits<float>;
  const double real = toDouble(value);
  if (std::abs(real) > static_cast<double>(Limits::max())) {
    return std::copysign(Limits::infinity(), real < 0 ? -1.0F : 1.0F);
  }
  return static_cast<float>(real);
}

}  // namespace marbleway
