#include "tools/inspect/arguments.h"

#include <algorithm>
#include <array>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

namespace inspect {
namespace {

using marbleway::kTables;
using marbleway::Table;

/// The command line as it stands: the words, and what follows the options.
struct Words {
  std::vector<std::string> plain;
  std::map<std::string, std::string, std::less<>> options;
};

constexpr std::array<std::string_view, 3> kOptions{"--directory", "--format", "--user"};

Words split(std::span<const char* const> arguments) {
  Words words;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string word = arguments[i];
    if (!word.starts_with("-")) {
      words.plain.push_back(word);
      continue;
    }
    const std::size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    if (std::ranges::find(kOptions, name) == kOptions.end()) {
      throw UsageError("unknown option \"" + printable(name) + "\"");
    }
    if (equals != std::string::npos) {
      words.options[name] = word.substr(equals + 1);
    } else if (++i < arguments.size()) {
      words.options[name] = arguments[i];
    } else {
      throw UsageError(name + " needs a value");
    }
  }
  return words;
}

/// The one of `choices` that `word` names.
template <class Choices>
auto chosen(const Choices& choices, std::string_view word, const char* what) {
  for (const auto& [name, choice] : choices) {
    if (name == word) return choice;
  }
  throw UsageError(std::string("unknown ").append(what) + " \"" + printable(word) + "\"");
}

constexpr std::pair<std::string_view, Command> kCommands[] = {{"stats", Command::stats},
                                                              {"rows", Command::rows},
                                                              {"batch", Command::batch},
                                                              {"privacy", Command::privacy}};
constexpr std::pair<std::string_view, Format> kFormats[] = {
    {"table", Format::table}, {"ndjson", Format::ndjson}, {"csv", Format::csv}};

const Table* tableOf(std::string_view word) {
  constexpr std::string_view kPrefix = "mrbw_v2_";
  const auto* const table = std::ranges::find_if(kTables, [&](const Table& any) {
    return word == any.name || word == any.name.substr(kPrefix.size()) || word == any.arrayKey;
  });
  if (table != std::end(kTables)) return table;
  throw UsageError("unknown table \"" + printable(word) + "\"");
}

void checkFormat(const Request& request, bool isFormatGiven) {
  if (isFormatGiven && request.command == Command::batch) {
    throw UsageError("batch has one format, the document's own");
  }
  if (request.format == Format::csv && request.command == Command::rows && !request.table) {
    throw UsageError("csv takes the rows of one table: name it");
  }
}

}  // namespace

Request readArguments(std::span<const char* const> arguments) {
  for (const std::string_view word : arguments) {
    if (word == "--help") return {.command = Command::help};
    if (word == "--version") return {.command = Command::version};
  }
  Words words = split(arguments);
  Request request;
  if (const auto given = words.options.find("--directory"); given != words.options.end()) {
    words.plain.insert(words.plain.begin(), given->second);
  }
  if (words.plain.empty() || words.plain[0].empty()) throw UsageError("no directory is named");
  if (words.plain.size() == 1) throw UsageError("no command is given");
  request.directory = words.plain[0];
  request.command = chosen(kCommands, words.plain[1], "command");
  const std::size_t most = request.command == Command::rows ? 3 : 2;
  if (words.plain.size() > most) {
    throw UsageError("one word too many: \"" + printable(words.plain[most]) + "\"");
  }
  if (words.plain.size() == 3) request.table = tableOf(words.plain[2]);
  if (const auto user = words.options.find("--user"); user != words.options.end()) {
    request.user = user->second;
  }
  const auto format = words.options.find("--format");
  if (format != words.options.end()) request.format = chosen(kFormats, format->second, "format");
  checkFormat(request, format != words.options.end());
  return request;
}

}  // namespace inspect
