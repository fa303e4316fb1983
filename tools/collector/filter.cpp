#include "tools/collector/filter.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <utility>

#include "tools/collector/kinds.h"
#include "tools/collector/refusal.h"

namespace collector {
namespace {

/// The parameters that arrivals have themselves.
constexpr std::array<std::pair<std::string_view, const char*>, 4> kOwn{
    {{"table", "a.Kind"}, {"session", "a.SessionID"}, {"token", "a.Token"}, {"state", "a.State"}}};

using Columns = std::vector<std::pair<std::string, std::string>>;  // key, parameter of its text

bool hasAll(const Kind& kind, const Columns& columns) {
  return std::all_of(columns.begin(), columns.end(), [&](const auto& column) {
    const auto keys = kind.keys();
    return std::find(keys.begin(), keys.end(), column.first) != keys.end();
  });
}

}  // namespace

long long numberOf(const Parameters& parameters, const std::string& name, long long absent,
                   long long largest) {
  const auto found = parameters.find(name);
  if (found == parameters.end()) return absent;
  const std::string& text = found->second;
  long long number = -1;
  const char* end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number);
  if (read.ec == std::errc() && read.ptr == end && number >= 0 && number <= largest) return number;
  throw QueryError(inQuotes(name) + " is not a number from 0 to " + std::to_string(largest));
}

Filter::Filter(const Parameters& parameters, const std::vector<std::string>& others) {
  Columns columns;
  for (const auto& parameter : parameters) {
    const auto& [name, value] = parameter;
    if (std::find(others.begin(), others.end(), name) != others.end()) continue;
    if (name == "table") table_ = value;
    const auto* const own = std::find_if(
        kOwn.begin(), kOwn.end(), [&](const auto& each) { return each.first == parameter.first; });
    if (own == kOwn.end()) {
      columns.emplace_back(name, parameterFor(value));
    } else {
      require(std::string(own->second) + " = " + parameterFor(value));
    }
  }
  if (parameters.contains("table") && kindNamed(table_) == nullptr) {
    throw QueryError(inQuotes(table_) + " is not a table");
  }
  if (!columns.empty()) addColumns(columns);
}

void Filter::addColumns(const Columns& columns) {
  std::string any;
  for (const Kind& kind : kKinds) {
    if (!hasAll(kind, columns) || (!table_.empty() && table_ != kind.name())) continue;
    const std::string name(kind.name());
    any.append(any.empty() ? "" : " OR ");
    any.append("(a.Kind = '").append(name).append("' AND EXISTS (SELECT 1 FROM ").append(name);
    any.append(" AS r WHERE r.rowid = a.Row");
    for (const auto& [key, text] : columns)
      any.append(" AND r.").append(key).append(" = ").append(text);
    any.append("))");
  }
  if (any.empty()) throw QueryError("no table has the column " + inQuotes(columns[0].first));
  require("(" + any + ")");
}

std::string Filter::parameterFor(const std::string& text) {
  texts_.push_back(text);
  return std::string("?").append(std::to_string(texts_.size()));
}

void Filter::require(const std::string& condition) { condition_.append(" AND ").append(condition); }

void Filter::bind(tools::Statement& statement) const {
  int index = 0;
  for (const std::string& text : texts_) statement.bind(++index, text);
}

}  // namespace collector
