#pragma once

#include <filesystem>
#include <string_view>

namespace todo {

/// The to-do list as its user sees it. The file is read at every command, so that several of these
/// programs, and an editor, can share it.
struct App {
  std::filesystem::path file;
  bool isTipShown = false;
  bool isOver = false;  // the user wants to leave
};

/// Carries out a command line. False when that was not possible; standard error tells why.
bool run(App& app, std::string_view line);

}  // namespace todo
