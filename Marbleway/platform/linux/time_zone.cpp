#include "Marbleway/platform/linux/time_zone.h"

#include <fstream>
#include <string_view>
#include <system_error>

namespace marbleway::platform {
namespace {

namespace fs = std::filesystem;

/// What stands below the directory of the zones in `path`; empty when that is not in it.
std::string_view belowZones(std::string_view path) {
  constexpr std::string_view kZones = "zoneinfo/";
  const std::size_t at = path.rfind(kZones);
  if (at == std::string_view::npos) return {};
  path.remove_prefix(at + kZones.size());
  for (const std::string_view variant : {"posix/", "right/"}) {
    if (path.starts_with(variant)) path.remove_prefix(variant.size());
  }
  return path;
}

/// Whether `name` is an installed zone, or has an area and a place as in "Europe/Berlin": then it
/// is a name even where no zones are installed.
bool isZone(std::string_view name, const fs::path& root) {
  constexpr std::string_view kCharacters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/_+-";
  if (name.find_first_not_of(kCharacters) != std::string_view::npos) return false;
  const std::size_t slash = name.find('/');
  std::error_code error;
  return (slash != 0 && slash < name.size() - 1) ||
         fs::is_regular_file(root / "usr/share/zoneinfo" / name, error);
}

/// The name that the variable TZ holds; empty when it holds none.
std::string_view nameIn(std::string_view setting, const fs::path& root) {
  if (setting.starts_with(':')) setting.remove_prefix(1);
  if (setting.empty()) return "UTC";
  if (setting.starts_with('/')) return belowZones(setting);
  return isZone(setting, root) ? setting : std::string_view();
}

}  // namespace

std::string timeZoneName(const char* setting, const fs::path& root) {
  if (setting != nullptr) {
    if (const auto name = nameIn(setting, root); !name.empty()) return std::string(name);
  }
  std::error_code error;
  const std::string link = fs::read_symlink(root / "etc/localtime", error).string();
  if (const auto name = belowZones(link); !name.empty()) return std::string(name);

  std::string name;
  std::ifstream(root / "etc/timezone") >> name;
  return name.empty() ? "UTC" : name;
}

}  // namespace marbleway::platform
