#pragma once

#include <windows.h>

#include <memory>
#include <type_traits>

namespace marbleway::platform {

struct CloseHandleOnExit {
  void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};
using HandleOwner = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseHandleOnExit>;

/// Owns what CreateFileW has returned; null after a failure.
inline HandleOwner owned(HANDLE file) {
  return HandleOwner(file != INVALID_HANDLE_VALUE ? file : nullptr);
}

struct FreeLocally {
  void operator()(void* block) const noexcept { LocalFree(block); }
};

}  // namespace marbleway::platform
