#include "Marbleway/platform/paths.h"

#include <windows.h>
#include <knownfolders.h>
#include <shlobj.h>

#include <cstdlib>
#include <memory>

#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/windows/owner_only.h"
#include "Marbleway/platform/windows/text.h"

namespace marbleway::platform {
namespace {

constexpr std::wstring_view kLong = L"\\\\?\\";  // in front of paths that may be long

/// Makes a folder and those around it. What is there already stays as it is.
void makeDirectory(const std::wstring& name) {
  if (CreateDirectoryW(name.c_str(), ownerOnly()) != 0 || GetLastError() != ERROR_PATH_NOT_FOUND) {
    return;
  }
  const std::size_t end = name.find_last_of(L'\\');
  if (end == std::wstring::npos || end <= kLong.size()) return;
  makeDirectory(name.substr(0, end));
  (void)CreateDirectoryW(name.c_str(), ownerOnly());
}

struct FreeTask {
  void operator()(wchar_t* text) const noexcept { CoTaskMemFree(text); }
};

}  // namespace

// It takes names in UTF-8, of any length where they begin with `kLong`.
const char* const kSQLiteFileSystem = "win32-longpath";

std::filesystem::path absolutePath(const std::filesystem::path& path) {
  const std::wstring& name = path.native();
  std::wstring whole(GetFullPathNameW(name.c_str(), 0, nullptr, nullptr), 0);
  whole.resize(
      GetFullPathNameW(name.c_str(), static_cast<DWORD>(whole.size()), whole.data(), nullptr));
  if (whole.empty()) {
    throw std::filesystem::filesystem_error(
        "absolutePath", path,
        std::error_code(static_cast<int>(GetLastError()), std::system_category()));
  }
  if (whole.starts_with(kLong) || whole.starts_with(L"\\\\.\\")) return whole;
  if (whole.starts_with(L"\\\\")) return std::wstring(kLong) + L"UNC" + whole.substr(1);
  return std::wstring(kLong) + whole;
}

std::string executableName() {
  std::wstring name(MAX_PATH, 0);
  for (;;) {
    const DWORD size = GetModuleFileNameW(nullptr, name.data(), static_cast<DWORD>(name.size()));
    if (size < name.size()) {
      name.resize(size);
      break;
    }
    name.resize(2 * name.size());
  }
  return narrow(std::filesystem::path(name).stem().native());
}

std::string_view environment(const char* name) {
  const char* text = std::getenv(name);
  return text != nullptr ? text : "";
}

std::filesystem::path defaultDataDirectory() {
  wchar_t* text = nullptr;
  const HRESULT result =
      SHGetKnownFolderPath(FOLDERID_LocalAppData, KF_FLAG_DONT_VERIFY, nullptr, &text);
  const std::unique_ptr<wchar_t, FreeTask> owner(text);
  if (result == S_OK) return text;
  return std::filesystem::temp_directory_path();  // of a user without a profile
}

void makeDocumentsDirectory() { makeDirectory(wide(documentsDirectory())); }

}  // namespace marbleway::platform
