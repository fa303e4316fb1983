#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/fixture.h"

// Scenarios are text tables of steps and of the effects that each must have; the syntax stands in
// tests/scenarios/README.md.
namespace marbleway::testing {

/// A world that writes down, in order, what the library does to its surroundings: the rows of the
/// event store, console lines, requests, changes of the user defaults, and what is asked of the
/// user interface, the network capture and the crash hook.
class ObservedWorld : public World {
 public:
  ObservedWorld();

  /// Adds an effect, after the rows that came before it. Thread: any, one at a time.
  void add(const std::string& effect);
  /// The effects since the last call. Session and time texts are shortened: "#2" is the second
  /// identifier that the device made, "@1.5" a time 1.5 s after the start. A line's end is "\n",
  /// and blanks in a row are one.
  std::vector<std::string> takeEffects();

 private:
  void addNewRows();

  std::vector<std::string> effects_;
  std::map<std::string, std::int64_t> lastIDs_;  // by table
};

/// Which functions the steps call that are named like operations.
enum class Interface { cpp, c };

/// One argument of a step: a JSON text, or a word of the driver's own.
class Argument {
 public:
  explicit Argument(std::string text);

  /// The argument as it is written.
  const std::string& text() const { return text_; }
  /// The text that the JSON text holds; null when it holds none.
  const char* string() const;

  ///@{
  /// What an operation takes.
  operator Text() const { return string(); }
  operator const Value&() const { return value_; }
  operator const Dictionary&() const;
  operator bool() const { return value_ == Value(true); }
  operator std::chrono::milliseconds() const { return std::chrono::milliseconds(stoll(text_)); }
  ///@}

 private:
  std::string text_;
  Value value_;  // null when the text is no JSON
};

using Arguments = std::vector<Argument>;

/// Runs the step of this name: changes the world, or calls the library through `interface`.
void runStep(std::string_view name, ObservedWorld& world, const Arguments& arguments,
             Interface interface);

}  // namespace marbleway::testing
