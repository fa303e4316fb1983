#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace marbleway::tests {

/// Starts the library with this system's own services: stores in `directory`, the server at `url`.
void startLibrary(const std::filesystem::path& directory, const std::string& url);
/// The names of all events in the store, in order.
std::vector<std::string> eventsIn(const std::filesystem::path& directory);
/// Both stores are sound, with all their tables, and no unfinished file stands beside them.
void expectSoundStores(const std::filesystem::path& directory);

}  // namespace marbleway::tests
