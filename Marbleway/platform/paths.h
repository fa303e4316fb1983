#pragma once

#include <filesystem>
#include <string>

namespace marbleway::platform {

/// The file name of the program that runs, as the kernel knows it.
std::string executableName();

/// Where the user's applications keep their data, absolute: $XDG_DATA_HOME, or ".local/share" in
/// the home directory.
std::filesystem::path defaultDataDirectory();

}  // namespace marbleway::platform
