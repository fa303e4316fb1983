#include <windows.h>

#include "Marbleway/platform/crash_file.h"
#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/windows/owner_only.h"

namespace marbleway::platform {
namespace {

HANDLE handleOf(std::intptr_t number) { return reinterpret_cast<HANDLE>(number); }

OVERLAPPED placeAt(std::size_t offset) {
  OVERLAPPED place{};
  place.Offset = static_cast<DWORD>(offset);
  return place;
}

}  // namespace

// Others may read the file; an open for writing of theirs, or a second one here, fails.
bool LockedFile::open(const std::string& path, bool create) {
  const HANDLE handle =
      CreateFileW(pathFrom(path).c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                  ownerOnly(), create ? OPEN_ALWAYS : OPEN_EXISTING,
                  FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return false;
  BY_HANDLE_FILE_INFORMATION facts{};
  constexpr DWORD kNoFile = FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY;
  const bool isFile = GetFileType(handle) == FILE_TYPE_DISK &&
                      GetFileInformationByHandle(handle, &facts) != FALSE &&
                      (facts.dwFileAttributes & kNoFile) == 0;
  if (!isFile) return CloseHandle(handle), false;
  handle_ = reinterpret_cast<std::intptr_t>(handle);
  return true;
}

void LockedFile::close() {
  if (isOpen()) CloseHandle(handleOf(handle_));
  handle_ = -1;
}

bool LockedFile::isOpen() const { return handle_ != -1; }

bool LockedFile::isAt(const std::string& /*path*/) const { return false; }  // its open fails

bool LockedFile::read(std::span<std::byte> bytes) const {
  OVERLAPPED place = placeAt(0);
  DWORD count = 0;
  return ReadFile(handleOf(handle_), bytes.data(), static_cast<DWORD>(bytes.size()), &count,
                  &place) != FALSE &&
         count == bytes.size();
}

bool LockedFile::write(std::size_t offset, std::span<const std::byte> bytes) const {
  OVERLAPPED place = placeAt(offset);
  DWORD count = 0;
  return WriteFile(handleOf(handle_), bytes.data(), static_cast<DWORD>(bytes.size()), &count,
                   &place) != FALSE &&
         count == bytes.size();
}

}  // namespace marbleway::platform
