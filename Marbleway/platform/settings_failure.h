#pragma once

#include <atomic>
#include <string_view>

namespace marbleway::platform {

/// Called with the reason when this system's user defaults could not be written; null: not
/// reported. Thread: that of `synchronize`.
inline constinit std::atomic<void (*)(std::string_view reason) noexcept> settingsFailed{nullptr};

}  // namespace marbleway::platform
