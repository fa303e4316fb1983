#pragma once

#include <iosfwd>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

/// A command line that makes no sense; what() says why.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The command line of a program, after its name. An option and its value are two words or one:
/// "--port 80" or "--port=80". Switches, "--help" ("-h") and "--version" take no value.
class Arguments {
 public:
  /// Throws a UsageError for an option that is in neither list, for one without its value and for
  /// a switch with one.
  Arguments(std::span<const char* const> words, std::span<const std::string_view> options,
            std::span<const std::string_view> switches = {});

  /// Prints `usage` or the version of `program` to `out` where they ask for it; else returns false.
  bool answer(std::string_view program, std::string_view usage, std::ostream& out) const;
  /// The words that are no options, nor their values.
  const std::vector<std::string>& plain() const { return plain_; }
  bool has(std::string_view option) const { return values_.contains(option); }
  /// The values of an option, in the order given; of a switch "", once for each time it is given.
  const std::vector<std::string>& all(std::string_view option) const;
  /// The last value of an option, `absent` without one.
  std::string value(std::string_view option, const std::string& absent = "") const;
  /// The same as a number; throws a UsageError for what is no number from 0 to `largest`.
  int number(std::string_view option, int absent, int largest) const;

 private:
  bool help_ = false, version_ = false;
  std::vector<std::string> plain_;
  std::map<std::string, std::vector<std::string>, std::less<>> values_;
};

}  // namespace tools
