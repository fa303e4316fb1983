#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A second opinion, slow and short, that shares nothing with the library.
namespace marbleway::fuzz {

/// What a strict reader (RFC 8259, UTF-8, no lone surrogate) finds in a JSON text.
struct Reading {
  std::vector<std::string> texts;  // keys and texts alike, in order, unescaped
  bool hasExponent = false;        // a number has one: it may lie beyond a double
  std::size_t deepest = 0;         // levels of arrays and objects
};

/// Absent when `json` as a whole is no JSON text.
std::optional<Reading> readStrictly(std::string_view json);

/// True when `text` is what its code points encode to.
bool isUTF8(std::string_view text);

/// `text` with each byte that begins no valid sequence replaced by U+FFFD.
std::string withReplacements(std::string_view text);

}  // namespace marbleway::fuzz
