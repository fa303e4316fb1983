#include "tools/inspect/arguments.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/common/text.h"

namespace inspect {
namespace {

using marbleway::kTables;
using marbleway::Table;
using tools::UsageError;

constexpr std::string_view kOptions[] = {"--directory", "--format", "--limit", "--user"};
constexpr std::string_view kSwitches[] = {"--all", "--follow"};
constexpr std::string_view kPrefix = "mrbw_v2_";  // of the tables' names
constexpr int kMaxLimit = 1'000'000'000;

/// Options that one command alone takes.
constexpr std::pair<std::string_view, Command> kOwners[] = {
    {"--all", Command::stats}, {"--limit", Command::rows}, {"--follow", Command::rows}};

/// The one of `choices` that `word` names.
template <class Choices>
auto chosen(const Choices& choices, std::string_view word, const char* what) {
  for (const auto& [name, choice] : choices) {
    if (name == word) return choice;
  }
  throw UsageError(std::string("unknown ").append(what) + " " + tools::inQuotes(word));
}

constexpr std::pair<std::string_view, Command> kCommands[] = {{"stats", Command::stats},
                                                              {"rows", Command::rows},
                                                              {"batch", Command::batch},
                                                              {"privacy", Command::privacy}};
constexpr std::pair<std::string_view, Format> kFormats[] = {
    {"table", Format::table}, {"ndjson", Format::ndjson}, {"csv", Format::csv}};

const Table* tableOf(std::string_view word) {
  const auto* const table = std::ranges::find_if(kTables, [&](const Table& any) {
    return word == any.name || word == any.name.substr(kPrefix.size()) || word == any.arrayKey;
  });
  if (table != std::end(kTables)) return table;
  throw UsageError("unknown table " + tools::inQuotes(word));
}

void check(const Request& request, const tools::Arguments& arguments) {
  for (const auto& [option, command] : kOwners) {
    if (!arguments.has(option) || command == request.command) continue;
    throw UsageError(std::string(option) + " is no option of this command");
  }
  if (request.command == Command::applications && request.user) {
    throw UsageError("no directory is named");
  }
  if (request.command == Command::batch && arguments.has("--format")) {
    throw UsageError("batch has one format, the document's own");
  }
  if (request.command == Command::rows && request.format == Format::csv && !request.table) {
    throw UsageError("csv takes the rows of one table: name it");
  }
}

/// Reads the words that are no options: a directory, a command and, for `rows`, a table.
void readWords(Request& request, const std::vector<std::string>& words) {
  if (words.empty()) return;  // lists the applications
  if (words[0].empty()) throw UsageError("no directory is named");
  if (words.size() == 1) throw UsageError("no command is given");
  request.directory = words[0];
  request.command = chosen(kCommands, words[1], "command");
  const std::size_t maxWords = request.command == Command::rows ? 3 : 2;
  if (words.size() > maxWords) {
    throw UsageError("one word too many: " + tools::inQuotes(words[maxWords]));
  }
  if (words.size() == 3) request.table = tableOf(words[2]);
}

}  // namespace

std::string usage() {
  std::string text = kUsage;
  for (const Table& table : kTables) {
    text.append("  ").append(table.name.substr(kPrefix.size())).append("\n");
  }
  return text;
}

tools::Arguments readArguments(std::span<const char* const> words) {
  return {words, kOptions, kSwitches};
}

Request requestFrom(const tools::Arguments& arguments) {
  std::vector<std::string> words = arguments.plain();
  if (arguments.has("--directory")) words.insert(words.begin(), arguments.value("--directory"));
  Request request;
  readWords(request, words);
  if (arguments.has("--limit")) request.limit = arguments.number("--limit", 0, kMaxLimit);
  request.follow = arguments.has("--follow");
  request.all = arguments.has("--all");
  if (arguments.has("--user")) request.user = arguments.value("--user");
  request.format = chosen(kFormats, arguments.value("--format", "table"), "format");
  check(request, arguments);
  return request;
}

}  // namespace inspect
