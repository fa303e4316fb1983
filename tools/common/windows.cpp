#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdio>

#include "tools/common/output.h"
#include "tools/common/terminal.h"

namespace tools {

void makeOutputBinary() { (void)_setmode(_fileno(stdout), _O_BINARY); }

std::optional<int> terminalColumns() {
  CONSOLE_SCREEN_BUFFER_INFO facts{};
  if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &facts) == 0) {
    return std::nullopt;
  }
  return facts.srWindow.Right - facts.srWindow.Left + 1;
}

}  // namespace tools
