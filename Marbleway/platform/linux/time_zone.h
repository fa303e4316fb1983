#pragma once

#include <filesystem>
#include <string>

namespace marbleway::platform {

/// The IANA name of the zone that `setting` (the variable TZ, null: not set) or else the files
/// below `root` name; "UTC" when none does. A rule such as "CET-1CEST" is no name.
std::string timeZoneName(const char* setting, const std::filesystem::path& root = "/");

}  // namespace marbleway::platform
