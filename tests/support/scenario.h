#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Marbleway/platform/value.h"
#include "tests/support/observer.h"

// Scenarios are text tables of steps and of the effects that each must have; the syntax stands in
// tests/scenarios/README.md.
namespace marbleway::testing {

/// Which functions the steps call that are named like operations.
enum class Interface { cpp, c };

/// One argument of a step: a JSON text, or a word of the driver's own.
class Argument {
 public:
  explicit Argument(std::string text);

  const std::string& text() const { return text_; }
  /// What the JSON text holds; null when it is none.
  const Value& value() const { return value_; }

  ///@{
  /// What an operation of C++ takes.
  operator Text() const { return cText(); }
  operator const Value&() const { return value_; }
  operator const Dictionary&() const;
  operator bool() const { return value_ == Value(true); }
  ///@}
  ///@{
  /// What a function of C takes: a text, or a JSON text; null for null.
  const char* cText() const {
    const auto* string = value_.as<std::string>();
    return string == nullptr ? nullptr : string->c_str();
  }
  const char* cJSON() const { return text_ == "null" ? nullptr : text_.c_str(); }
  ///@}

 private:
  std::string text_;
  Value value_;
};

using Arguments = std::vector<Argument>;
/// A step: changes `world`, or calls the library.
using Step = void (*)(ObservedWorld& world, const Arguments& arguments);

/// The step of this name; null when there is none.
Step findStep(std::string_view name, Interface interface);

/// Runs all scenarios of a file, each in a fresh world. A step whose effects are not exactly the
/// expected ones, in order, is a failure at its line.
void runScenarios(const std::filesystem::path& file, Interface interface);

}  // namespace marbleway::testing
