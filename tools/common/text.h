#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tools {

/// `bytes` as UTF-8: U+FFFD stands for what is none.
std::string asUtf8(std::string_view bytes);

/// `bytes` as UTF-8 for one line of a terminal: characters that control a terminal or change the
/// direction of text are spelled out, as \n or \u009b. Of more than `maxCharacters` characters of
/// the result the first are returned, with "..." as the last three.
std::string printable(std::string_view bytes, std::size_t maxCharacters = std::string::npos);

/// What somebody sent, for a line of a terminal: `bytes` in quotes, at most 80 characters of it.
std::string inQuotes(std::string_view bytes);

/// The characters of `text`, which is UTF-8.
std::size_t charactersOf(std::string_view text);

}  // namespace tools
