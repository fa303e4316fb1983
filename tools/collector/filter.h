#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tools/common/database.h"

namespace collector {

/// A query that makes no sense; what() says why.
struct QueryError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The parameters of a request to the page's interface.
using Parameters = std::multimap<std::string, std::string>;

/// The number that `name` has among `parameters`, `absent` without it; throws a QueryError for
/// what is not a number from 0 to `largest`.
long long numberOf(const Parameters& parameters, const std::string& name, long long absent,
                   long long largest);

/// Which arrivals are asked for: "table", "session", "token", "state", and any column, each with
/// the exact text it must have.
class Filter {
 public:
  /// Throws a QueryError for an unknown table, and for a parameter that is neither one of these,
  /// nor in `others`, nor a column of the table (or, without one, of any table).
  Filter(const Parameters& parameters, const std::vector<std::string>& others);

  /// Leaves out rows that had arrived before.
  void excludeRepeats() { require("a.State <> 'again'"); }

  /// The condition on an `Arrivals AS a`, which `bind` gives its texts.
  const std::string& condition() const { return condition_; }
  void bind(tools::Statement& statement) const;

  /// The table, or nothing.
  const std::string& table() const { return table_; }

 private:
  /// The parameter of the statement for `text`, from "?1" on.
  std::string parameterFor(const std::string& text);
  void require(const std::string& condition);
  /// `columns`: each key with the parameter of its text.
  void addColumns(const std::vector<std::pair<std::string, std::string>>& columns);

  std::string condition_ = "1", table_;
  std::vector<std::string> texts_;
};

}  // namespace collector
