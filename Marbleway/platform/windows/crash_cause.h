#pragma once

#include <cstdint>

namespace marbleway::platform {

/// Codes of failures that are no exceptions of the system, besides SIGABRT.
inline constexpr std::int32_t kInvalidParameter = 1, kPureCall = 2;

/// Whether an exception has the kind and the address of an access to memory.
bool isAccess(std::uint32_t code);

}  // namespace marbleway::platform
