#include "tools/common/arguments.h"

#include <algorithm>
#include <charconv>
#include <ostream>

#include "Marbleway/version.h"
#include "tools/common/text.h"

namespace tools {

Arguments::Arguments(std::span<const char* const> words, std::span<const std::string_view> options,
                     std::span<const std::string_view> switches) {
  const auto isIn = [](std::span<const std::string_view> names, const std::string& name) {
    return std::ranges::find(names, name) != names.end();
  };
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string word = words[i];
    if (word == "--help" || word == "-h") {
      help_ = true;
    } else if (word == "--version") {
      version_ = true;
    } else if (isIn(switches, word)) {
      values_[word].emplace_back();
    } else if (!word.starts_with("-")) {
      plain_.push_back(word);
    } else {
      const std::size_t equals = word.find('=');
      const std::string name = word.substr(0, equals);
      if (isIn(switches, name)) throw UsageError(name + " takes no value");
      if (!isIn(options, name)) throw UsageError("unknown option " + inQuotes(name));
      const bool isOneWord = equals != std::string::npos;
      if (!isOneWord && i + 1 == words.size()) throw UsageError(name + " needs a value");
      values_[name].push_back(isOneWord ? word.substr(equals + 1) : words[++i]);
    }
  }
}

bool Arguments::answer(std::string_view program, std::string_view usage, std::ostream& out) const {
  if (help_) {
    out << usage;
  } else if (version_) {
    out << program << " " MARBLEWAY_VERSION "\n";
  }
  return help_ || version_;
}

const std::vector<std::string>& Arguments::all(std::string_view option) const {
  static const std::vector<std::string> kNone;
  const auto found = values_.find(option);
  return found == values_.end() ? kNone : found->second;
}

std::string Arguments::value(std::string_view option, const std::string& absent) const {
  return has(option) ? all(option).back() : absent;
}

int Arguments::number(std::string_view option, int absent, int largest) const {
  if (!has(option)) return absent;
  const std::string& text = all(option).back();
  int number = -1;
  const char* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number);
  if (read.ec == std::errc() && read.ptr == end && number >= 0 && number <= largest) return number;
  throw UsageError(inQuotes(text) + " is not a number from 0 to " + std::to_string(largest));
}

}  // namespace tools
