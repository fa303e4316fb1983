#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "examples/todo/system.h"

namespace todo::system {
namespace {

struct Close {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

/// Writes a new file. `mkstemp` replaces the last six letters of `name`. False on failure.
bool writeNew(std::string& name, std::string_view content) {
  const int descriptor = mkstemp(name.data());
  if (descriptor < 0) return false;
  const std::unique_ptr<std::FILE, Close> file(fdopen(descriptor, "w"));
  return file && std::fwrite(content.data(), 1, content.size(), file.get()) == content.size() &&
         std::fflush(file.get()) == 0 && fsync(descriptor) == 0;
}

std::string variable(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

std::string dataDirectory() {
  if (std::string data = variable("XDG_DATA_HOME"); !data.empty()) return data;
  const std::string home = variable("HOME");
  return home.empty() ? home : home + "/.local/share";
}

bool replaceFile(const std::filesystem::path& file, std::string_view content) {
  std::string fresh = file.string() + ".XXXXXX";
  if (writeNew(fresh, content) && std::rename(fresh.c_str(), file.c_str()) == 0) return true;
  std::remove(fresh.c_str());
  return false;
}

void onEnd(void (*handle)(int signal)) {
  struct sigaction action {};
  action.sa_handler = handle;
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // no SA_RESTART: interrupts reading a line
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

bool isKeyboard() { return isatty(STDIN_FILENO) == 1; }

}  // namespace todo::system
