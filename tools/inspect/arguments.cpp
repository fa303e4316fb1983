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

constexpr std::string_view kOptions[] = {"--directory", "--format", "--user"};

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
  constexpr std::string_view kPrefix = "mrbw_v2_";
  const auto* const table = std::ranges::find_if(kTables, [&](const Table& any) {
    return word == any.name || word == any.name.substr(kPrefix.size()) || word == any.arrayKey;
  });
  if (table != std::end(kTables)) return table;
  throw UsageError("unknown table " + tools::inQuotes(word));
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

tools::Arguments readArguments(std::span<const char* const> words) { return {words, kOptions}; }

Request requestFrom(const tools::Arguments& arguments) {
  std::vector<std::string> plain = arguments.plain();
  if (arguments.has("--directory")) plain.insert(plain.begin(), arguments.value("--directory"));
  if (plain.empty() || plain[0].empty()) throw UsageError("no directory is named");
  if (plain.size() == 1) throw UsageError("no command is given");
  Request request;
  request.directory = plain[0];
  request.command = chosen(kCommands, plain[1], "command");
  const std::size_t maxWords = request.command == Command::rows ? 3 : 2;
  if (plain.size() > maxWords) {
    throw UsageError("one word too many: " + tools::inQuotes(plain[maxWords]));
  }
  if (plain.size() == 3) request.table = tableOf(plain[2]);
  if (arguments.has("--user")) request.user = arguments.value("--user");
  request.format = chosen(kFormats, arguments.value("--format", "table"), "format");
  checkFormat(request, arguments.has("--format"));
  return request;
}

}  // namespace inspect
