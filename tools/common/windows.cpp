#include <windows.h>

#include "tools/common/terminal.h"

namespace tools {

std::optional<int> terminalColumns() {
  CONSOLE_SCREEN_BUFFER_INFO facts{};
  if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &facts) == 0) {
    return std::nullopt;
  }
  return facts.srWindow.Right - facts.srWindow.Left + 1;
}

}  // namespace tools
