#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace todo {

/// An error that is shown to the user and ends a command, not the program. Its text contains
/// neither the path nor the content of a file, so that it may be uploaded.
struct Problem : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Item {
  std::string text;
  bool isDone = false;
};
using List = std::vector<Item>;

std::size_t openItems(const List& list);

/// `text` without blanks at its ends; each line break and control character becomes a blank.
std::string oneLine(std::string_view text);

/// Reads a list. Each to-do is one line: "- [ ] buy milk" or, when done, "- [x] buy milk". Empty
/// lines are skipped. Throws a Problem with the number of the first invalid line.
List readList(const std::filesystem::path& file);

/// Replaces the file by `list`, readable by its owner only. Throws a Problem and leaves the file
/// unchanged on failure.
void writeList(const std::filesystem::path& file, const List& list);

}  // namespace todo
