#pragma once

#include "tests/support/fixture.h"

namespace marbleway::fuzz {

/// What each target defines: `bytes` as its input.
void run(std::string_view bytes);

/// Aborts the process, which is then a finding, unless `holds`.
void require(bool holds, std::string_view property);

/// The library on fakes, in a session whose start is forgotten. Made once in a process.
testing::World& world();

/// The first eight bytes; fewer, completed by zeros.
std::int64_t integerIn(std::string_view bytes);
/// Each byte in two hexadecimal digits, after `mark`.
std::string hexOf(std::string_view bytes, std::string_view mark = "");
/// `text` with each byte that belongs to no valid UTF-8 sequence replaced by U+FFFD.
std::string withReplacements(std::string_view text);

/// The texts of `json`, keys among them, in order; absent when it is not valid JSON in valid UTF-8.
std::optional<std::vector<std::string>> textsIn(std::string_view json);

}  // namespace marbleway::fuzz
