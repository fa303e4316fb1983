#pragma once

#include <filesystem>
#include <string_view>

namespace todo {

/// The state of the program. Each command reads the file again, so that several programs and an
/// editor can share it.
struct App {
  std::filesystem::path file;
  bool isTipShown = false;
  bool isOver = false;  // after "quit"
};

/// Runs one command line. False when it failed; standard error has the reason.
bool run(App& app, std::string_view line);

}  // namespace todo
