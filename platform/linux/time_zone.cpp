#include "platform/linux/time_zone.h"

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

/// Area and place, as in "America/Argentina/Salta": a name even where the zones are not installed.
bool looksLikeZone(std::string_view name) {
  constexpr std::string_view kCharacters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/_+-";
  const std::size_t slash = name.find('/');
  return name.find_first_not_of(kCharacters) == std::string_view::npos && slash != 0 &&
         slash < name.size() - 1;
}

std::string nameIn(std::string_view setting, const fs::path& root) {
  if (setting.starts_with(':')) setting.remove_prefix(1);
  if (setting.starts_with('/')) return std::string(belowZones(setting));
  if (setting.empty()) return "UTC";
  std::error_code error;
  const bool isInstalled = fs::is_regular_file(root / "usr/share/zoneinfo" / setting, error);
  return isInstalled || looksLikeZone(setting) ? std::string(setting) : std::string();
}

}  // namespace

std::string timeZoneName(const char* setting, const fs::path& root) {
  if (setting != nullptr) {
    if (std::string name = nameIn(setting, root); !name.empty()) return name;
  }
  std::error_code error;
  const std::string link = fs::read_symlink(root / "etc/localtime", error).string();
  if (const auto name = belowZones(link); !name.empty()) return std::string(name);

  std::string name;
  std::ifstream(root / "etc/timezone") >> name;
  return name.empty() ? "UTC" : name;
}

}  // namespace marbleway::platform
