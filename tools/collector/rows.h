#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/collector/filter.h"
#include "tools/collector/kinds.h"
#include "tools/common/database.h"
#include "tools/common/json_text.h"

namespace collector {

/// One arrival of one row.
struct Row {
  long long n = 0;         // its number, greater than that of each before
  long long received = 0;  // milliseconds since 1970
  const Kind* kind = nullptr;
  std::string session, user, device, token;  // empty: not known, or none
  std::optional<long long> lag;              // milliseconds from its time stamp to its arrival
  std::string state;                         // new, again or gap
  long long batch = 0;
  long long times = 0;             // how often it has arrived, until now
  std::vector<std::string> texts;  // as sent, in the order of the kind's keys

  const std::string& name() const { return texts[kind->title()]; }
  const std::string& time() const { return texts.back(); }
};

void putRow(tools::JsonWriter& writer, const Row& row);

/// Which part of the arrivals is read.
struct Range {
  long long after = 0;
  std::optional<long long> before = {};
  long long limit = 500;
  bool newest = false;  // the last ones of them, not the first ones
};

/// Reads the data file over a connection of its own: it neither waits for a batch nor delays one.
/// Thread: one at a time.
class RowReader {
 public:
  explicit RowReader(const std::string& path);

  /// Oldest first. Returns fewer rows, but at least one, where their texts exceed 8,000,000 bytes.
  std::vector<Row> read(const Filter& filter, const Range& range);
  long long count(const Filter& filter);

  /// The number of the newest arrival there has ever been.
  long long last();

  /// The members "rows", "again", "gaps", "sessions" and "tables" of the summary.
  void putSummary(tools::JsonWriter& writer);
  /// The sessions as an array, the one that a row arrived of last first.
  void putSessions(tools::JsonWriter& writer);

 private:
  Row rowAt(const tools::Statement& arrival);
  void addTexts(Row& row, long long place);
  void addUser(Row& row);
  void putProfile(tools::JsonWriter& writer, std::string_view session);
  void putOutline(tools::JsonWriter& writer, tools::Statement& outline, std::string_view session);

  tools::Database database_;
  std::array<std::optional<tools::Statement>, kKinds.size()> texts_;  // prepared when first needed
  tools::Statement user_, profile_;
};

}  // namespace collector
