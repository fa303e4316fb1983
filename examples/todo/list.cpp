#include "examples/todo/list.h"

#include <algorithm>
#include <fstream>
#include <system_error>

#include "examples/todo/system.h"

namespace todo {
namespace {

constexpr std::string_view kOpen = "- [ ] ", kDone = "- [x] ";

}  // namespace

std::size_t openItems(const List& list) {
  return static_cast<std::size_t>(
      std::count_if(list.begin(), list.end(), [](const Item& item) { return !item.isDone; }));
}

std::string oneLine(std::string_view text) {
  std::string line(text);
  const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
  std::replace_if(line.begin(), line.end(), isControl, ' ');
  const std::size_t first = line.find_first_not_of(' ');
  if (first == std::string::npos) return {};
  return line.substr(first, line.find_last_not_of(' ') - first + 1);
}

List readList(const std::filesystem::path& file) {
  std::ifstream stream(file);
  if (!stream) throw Problem("the file cannot be read");
  List list;
  int number = 0;
  for (std::string line; std::getline(stream, line);) {
    ++number;
    line = oneLine(line);
    if (line.empty()) continue;
    const bool isDone = line.starts_with(kDone);
    if (!isDone && !line.starts_with(kOpen)) {
      throw Problem("line " + std::to_string(number) + " of the file is no to-do");
    }
    list.push_back({oneLine(line.substr(kOpen.size())), isDone});
  }
  if (stream.bad()) throw Problem("the file cannot be read to its end");
  return list;
}

void writeList(const std::filesystem::path& file, const List& list) {
  std::string content;
  for (const Item& item : list) {
    content.append(item.isDone ? kDone : kOpen).append(item.text).append("\n");
  }
  std::error_code ignored;  // a failure here leads to one below
  const auto target = std::filesystem::weakly_canonical(file, ignored);  // keeps symbolic links
  std::filesystem::create_directories(target.parent_path(), ignored);
  if (system::replaceFile(target, content)) return;
  throw Problem("the list cannot be written and stays as it was");
}

}  // namespace todo
