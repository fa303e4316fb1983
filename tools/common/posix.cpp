#include <sys/ioctl.h>
#include <unistd.h>

#include "tools/common/output.h"
#include "tools/common/terminal.h"

namespace tools {

void makeOutputBinary() {}

std::optional<int> terminalColumns() {
  if (isatty(STDOUT_FILENO) == 0) return std::nullopt;
  winsize size{};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

}  // namespace tools
