#pragma once

#include <string>
#include <string_view>
#include <system_error>

namespace marbleway::platform {

/// The same text in the other form; what is no text of Unicode is replaced by U+FFFD.
std::wstring wide(std::string_view text);
std::string narrow(std::wstring_view text);

/// The system's description of an error, in English where it has one; its number else. `module`
/// names a library with errors of its own.
std::string errorText(unsigned long error, const wchar_t* module = nullptr);

}  // namespace marbleway::platform
