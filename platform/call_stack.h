#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace marbleway::platform {

/// The return addresses of the calling thread's stack, innermost first; empty where the system
/// cannot tell.
std::vector<std::uintptr_t> returnAddresses();

/// A line for each address: its number, module, function (demangled) and offset, as far as known.
std::vector<std::string> symbolsOf(const std::vector<std::uintptr_t>& addresses);

/// The source form of a mangled type or function name; the name itself when it is none.
std::string demangled(const char* name);

}  // namespace marbleway::platform
