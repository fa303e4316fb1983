#include <windows.h>

#include <bit>
#include <string>

#include "tools/inspect/store_file.h"
#include "tools/inspect/system.h"

namespace inspect {

// Nothing stops a program here, and what ends it does so at once.
struct SignalBlock::Mask {};
SignalBlock::SignalBlock(Kind /*kind*/) {}
SignalBlock::~SignalBlock() = default;

SharedLock::SharedLock(const std::filesystem::path& store)
    : file_(std::bit_cast<std::intptr_t>(CreateFileW(
          store.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
          nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr))) {
  OVERLAPPED place{};
  place.Offset = 0x40000002;  // the bytes that SQLite's file format keeps for shared locks
  (void)LockFileEx(std::bit_cast<HANDLE>(file_), LOCKFILE_FAIL_IMMEDIATELY, 0, 510, 0, &place);
}

SharedLock::~SharedLock() { CloseHandle(std::bit_cast<HANDLE>(file_)); }

// The folder of temporary files is in the user's own profile, which others cannot read.
std::filesystem::path makePrivateFolder() {
  const auto parent = std::filesystem::temp_directory_path();
  for (int number = 0; number < 1000; ++number) {
    const auto name =
        "marbleway-inspect-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(number);
    if (CreateDirectoryW((parent / name).c_str(), nullptr) != 0) return parent / name;
  }
  throw ReadError(parent.string() + ": no folder can be made for a copy");
}

void ignoreBrokenPipes() {}

}  // namespace inspect
