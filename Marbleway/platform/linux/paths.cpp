#include "Marbleway/platform/paths.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <vector>

#include "Marbleway/platform/platform.h"

namespace marbleway::platform {
namespace {

/// The path in the environment variable `name`; empty unless it is absolute.
std::filesystem::path absolutePathIn(const char* name) {
  const std::string_view path = environment(name);
  return path.starts_with('/') ? path : std::string_view();
}

/// The home directory in the user database; "/" when the user has none.
std::filesystem::path homeFromUserDatabase() {
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  while (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(2 * buffer.size());
  }
  return found != nullptr && *found->pw_dir == '/' ? found->pw_dir : "/";
}

}  // namespace

std::filesystem::path absolutePath(const std::filesystem::path& path) {
  return std::filesystem::absolute(path);
}

const char* const kSQLiteFileSystem = "unix";

std::string executableName() {
  std::error_code error;
  const auto link = std::filesystem::read_symlink("/proc/self/exe", error);
  std::string name = error ? program_invocation_short_name : link.filename().string();
  // A program that is replaced while it runs has its former name.
  constexpr std::string_view kReplaced = " (deleted)";
  if (name.ends_with(kReplaced)) name.resize(name.size() - kReplaced.size());
  return name;
}

std::string_view environment(const char* name) {
  const char* text = secure_getenv(name);
  return text != nullptr ? text : "";
}

std::filesystem::path defaultDataDirectory() {
  if (auto data = absolutePathIn("XDG_DATA_HOME"); !data.empty()) return data;
  const auto home = absolutePathIn("HOME");
  return (home.empty() ? homeFromUserDatabase() : home) / ".local/share";
}

void makeDocumentsDirectory() {
  const std::string directory = documentsDirectory();
  if (kindOf(directory.c_str()) != FileKind::missing) return;
  std::filesystem::path made;
  for (const auto& part : std::filesystem::path(directory)) {
    made /= part;
    // What is there already stays as it is; what is made is the owner's whatever the umask.
    if (mkdir(made.c_str(), S_IRWXU) == 0) (void)chmod(made.c_str(), S_IRWXU);
  }
}

}  // namespace marbleway::platform
