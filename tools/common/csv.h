#pragma once

#include <string>
#include <string_view>

namespace tools {

/// Appends `text` to a line of a CSV file (RFC 4180), in quotes, with a comma before it where it is
/// not the first field. A text that a spreadsheet would read as a formula gets an apostrophe first.
void appendCsvField(std::string& line, std::string_view text);

}  // namespace tools
