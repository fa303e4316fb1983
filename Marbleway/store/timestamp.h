#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace marbleway {

/// The current instant in UTC as "yyyy-MM-dd HH:mm:ss.SSS": 23 characters, milliseconds truncated,
/// whatever the locale. Thread: any.
std::string getUTCTimeStamp();

/// The same text for another instant.
std::string timeStampOf(std::chrono::system_clock::time_point instant);

/// Reads such a text back; absent when it is not one.
std::optional<std::chrono::sys_time<std::chrono::milliseconds>> timeOf(std::string_view timeStamp);

}  // namespace marbleway
