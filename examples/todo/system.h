#pragma once

#include <filesystem>
#include <string>
#include <string_view>

/// What each system does in its own way.
namespace todo::system {

/// Where the user's applications keep their data; empty when that is not known.
std::string dataDirectory();

/// Replaces `file`, or makes it, so that it holds `content` or is as it was. False when it is.
bool replaceFile(const std::filesystem::path& file, std::string_view content);

/// Has `handle` called, once, for each signal that asks the program to end.
void onEnd(void (*handle)(int signal));

/// Whether a person types what the program reads.
bool isKeyboard();

}  // namespace todo::system
