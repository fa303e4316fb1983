#pragma once

#include <cstdint>

namespace marbleway::platform {

/// Codes of failures that are no exceptions of the system, besides SIGABRT.
inline constexpr std::int32_t kInvalidParameter = 1, kPureCall = 2;

}  // namespace marbleway::platform
