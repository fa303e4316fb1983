#pragma once

#include <string>

#include "tools/collector/rows.h"

namespace collector {

/// The first line of a CSV file: the columns that every arrival has, then those of `kind`, or, with
/// a null pointer, one with all texts as a JSON object.
std::string csvHead(const Kind* kind);

/// One arrival as a line; `inColumns`: each of its texts in a column of its own.
std::string csvLine(const Row& row, bool inColumns);

}  // namespace collector
