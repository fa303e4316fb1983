#include "Marbleway/platform/files.h"

#include <windows.h>

#include <array>
#include <bit>
#include <functional>
#include <string>
#include <thread>

#include "Marbleway/platform/busy_budget.h"
#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/windows/handle.h"
#include "Marbleway/platform/windows/owner_only.h"
#include "Marbleway/platform/windows/text.h"

namespace marbleway::platform {
namespace {

constexpr DWORD kShared = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr const wchar_t* kLockName = L"lock";

/// A new file, the user's alone; null if there is one, or it cannot be made.
HandleOwner create(const std::wstring& name) {
  return owned(CreateFileW(name.c_str(), GENERIC_WRITE, 0, ownerOnly(), CREATE_NEW,
                           FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool fill(HANDLE file, std::string_view bytes) {
  while (!bytes.empty()) {
    DWORD written = 0;
    if (WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) == 0) {
      return false;
    }
    bytes.remove_prefix(written);
  }
  return FlushFileBuffers(file) != 0;
}

bool rename(const std::wstring& from, const std::wstring& to, DWORD flags) noexcept {
  return MoveFileExW(from.c_str(), to.c_str(), flags | MOVEFILE_WRITE_THROUGH) != 0;
}

/// The file that is locked. Another program may hold it open alone for a moment.
HANDLE openLock(const std::filesystem::path& name) {
  const BusyBudget budget;
  for (;;) {
    const HANDLE file = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, kShared,
                                    ownerOnly(), OPEN_ALWAYS, FILE_ATTRIBUTE_HIDDEN, nullptr);
    if (file != INVALID_HANDLE_VALUE || GetLastError() != ERROR_SHARING_VIOLATION) return file;
    if (!BusyBudget::wait([](auto interval) { std::this_thread::sleep_for(interval); })) {
      SetLastError(ERROR_SHARING_VIOLATION);
      return file;
    }
  }
}

/// Repeats a change of a file that another program (a virus scanner) holds open for a moment.
template <class Change>
bool retry(Change change) {
  const BusyBudget budget;
  while (!change()) {
    const DWORD error = GetLastError();
    if (error != ERROR_SHARING_VIOLATION && error != ERROR_ACCESS_DENIED) return false;
    const auto sleep = [](auto interval) { std::this_thread::sleep_for(interval); };
    for (int i = 0; i < 10; ++i) {
      if (!BusyBudget::wait(sleep)) return false;
    }
    SetLastError(error);
  }
  return true;
}

}  // namespace

FileContent readFile(const std::filesystem::path& file, std::size_t maxBytes) {
  using State = FileContent::State;
  const HandleOwner source = owned(CreateFileW(file.c_str(), GENERIC_READ, kShared, nullptr,
                                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!source) {
    const DWORD error = GetLastError();
    const bool isMissing = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
    return {isMissing ? State::missing : State::unavailable, {}};
  }
  if (GetFileType(source.get()) != FILE_TYPE_DISK) return {};

  FileContent content{State::read, {}};
  std::array<char, 4096> block{};
  for (;;) {
    DWORD got = 0;
    if (ReadFile(source.get(), block.data(), static_cast<DWORD>(block.size()), &got, nullptr) ==
        0) {
      return {};
    }
    if (got == 0) return content;
    content.bytes.append(block.data(), got);
    if (content.bytes.size() > maxBytes) return {State::tooLarge, {}};
  }
}

DirectoryLock::DirectoryLock(const std::filesystem::path& directory)
    : directory_(std::bit_cast<Handle>(openLock(directory / kLockName))),
      state_(lock(directory_)) {}

// Tries again after each interval: a wait in the system would have no limit.
DirectoryLock::State DirectoryLock::lock(Handle directory) {
  const auto file = std::bit_cast<HANDLE>(directory);
  if (file == INVALID_HANDLE_VALUE) {
    return GetLastError() == ERROR_SHARING_VIOLATION ? State::busy : State::unsupported;
  }
  const BusyBudget budget;
  OVERLAPPED place{};
  while (LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &place) ==
         0) {
    const DWORD error = GetLastError();
    if (error != ERROR_LOCK_VIOLATION && error != ERROR_IO_PENDING) return State::unsupported;
    if (!BusyBudget::wait([](auto interval) { std::this_thread::sleep_for(interval); })) {
      return State::busy;
    }
  }
  return State::held;
}

DirectoryLock::~DirectoryLock() {
  const auto file = std::bit_cast<HANDLE>(directory_);
  if (file == INVALID_HANDLE_VALUE) return;
  OVERLAPPED place{};
  // Closing would release it too, but later.
  if (isHeld()) UnlockFileEx(file, 0, 1, 0, &place);
  CloseHandle(file);
}

bool replaceFile(const std::filesystem::path& file, std::string_view bytes) {
  const std::wstring name = file.native() + L".new";
  DeleteFileW(name.c_str());  // left by a process that was killed
  HandleOwner temporary = create(name);
  if (!temporary) return false;
  const bool isFilled = fill(temporary.get(), bytes);
  temporary.reset();
  if (isFilled && retry([&] { return rename(name, file.native(), MOVEFILE_REPLACE_EXISTING); })) {
    return true;
  }
  const DWORD error = GetLastError();
  DeleteFileW(name.c_str());
  SetLastError(error);
  return false;
}

bool moveFile(const std::filesystem::path& from, const std::filesystem::path& to) noexcept {
  return rename(from.native(), to.native(), MOVEFILE_REPLACE_EXISTING);
}

void clearFileError() noexcept { SetLastError(ERROR_SUCCESS); }
std::string fileError() {
  const DWORD error = GetLastError();
  return error != ERROR_SUCCESS ? errorText(error) : "";
}

FileKind kindOf(const char* name) noexcept {
  WIN32_FILE_ATTRIBUTE_DATA facts{};
  std::wstring wideName;
  try {
    wideName = wide(name);
  } catch (...) {  // no memory
    return FileKind::missing;
  }
  if (GetFileAttributesExW(wideName.c_str(), GetFileExInfoStandard, &facts) == 0) {
    return FileKind::missing;
  }
  constexpr DWORD kOther =
      FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DEVICE;
  if ((facts.dwFileAttributes & kOther) != 0) return FileKind::other;
  return facts.nFileSizeHigh > 0 || facts.nFileSizeLow > 0 ? FileKind::filled : FileKind::empty;
}

void createFile(const std::string& file,
                const std::function<bool(const std::string& unfinished)>& fill) {
  const DirectoryLock directory(pathFrom(file).parent_path());
  if (directory.isBusy() || kindOf(file.c_str()) != FileKind::missing) return;
  const std::string unfinished = file + "-new";
  const auto remove = [&] {
    for (const char* suffix : {"", "-journal"}) DeleteFileW(wide(unfinished + suffix).c_str());
  };
  if (directory.isHeld()) remove();
  if (!create(wide(unfinished))) return;
  if (fill(unfinished)) {
    (void)retry([&] { return rename(wide(unfinished), wide(file), 0); });  // replaces no file
  }
  remove();
}

}  // namespace marbleway::platform
