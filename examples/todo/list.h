#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace todo {

/// What the person at the keyboard is told; it ends a command, never the program. The problems of
/// files tell neither their paths nor what stands in them, so that they may leave the device.
struct Problem : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Item {
  std::string text;
  bool isDone = false;
};
using List = std::vector<Item>;

std::size_t openItems(const List& list);

/// `text` without blanks at its ends, every line break and control character a blank.
std::string oneLine(std::string_view text);

/// Reads a list that people can read, too: a line for each to-do, "- [ ] buy milk" or, once done,
/// "- [x] buy milk"; empty lines are skipped. Throws a Problem that tells the first other line.
List readList(const std::filesystem::path& file);

/// Replaces the file by `list`, for its owner alone, or throws a Problem and leaves it as it was.
void writeList(const std::filesystem::path& file, const List& list);

}  // namespace todo
