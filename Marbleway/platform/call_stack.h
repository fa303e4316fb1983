#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace marbleway::platform {

/// The return addresses of the calling thread's stack, innermost first; empty where the system
/// cannot find them. They begin with `caller`, an address of `__builtin_return_address`; if it is
/// not among them, with the address of this call.
std::vector<std::uintptr_t> returnAddresses(const void* caller = nullptr);

/// A line for each address: its number, module, function (demangled) and offset, as far as known.
std::vector<std::string> symbolsOf(const std::vector<std::uintptr_t>& addresses);

/// The source form of a mangled type or function name; the name itself when it is none.
std::string demangled(const char* name);

/// The mangled type of the exception that a `catch` block of this thread handles.
const char* currentExceptionType();

}  // namespace marbleway::platform
