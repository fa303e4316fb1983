#include <io.h>
#include <windows.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "examples/todo/system.h"

namespace todo::system {

std::string dataDirectory() {
  const char* const data = std::getenv("LOCALAPPDATA");
  return data != nullptr ? data : "";
}

bool replaceFile(const std::filesystem::path& file, std::string_view content) {
  const std::wstring fresh = file.native() + L".new";
  std::ofstream stream(std::filesystem::path(fresh), std::ios::binary);
  stream.write(content.data(), static_cast<std::streamsize>(content.size()));
  stream.close();
  constexpr DWORD kFlags = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
  if (stream && MoveFileExW(fresh.c_str(), file.c_str(), kFlags) != 0) return true;
  DeleteFileW(fresh.c_str());
  return false;
}

void onEnd(void (*handle)(int signal)) {
  for (const int signal : {SIGINT, SIGTERM, SIGBREAK}) std::signal(signal, handle);
}

bool isKeyboard() { return _isatty(_fileno(stdin)) != 0; }

}  // namespace todo::system
