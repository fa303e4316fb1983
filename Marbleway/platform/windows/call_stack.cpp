#include "Marbleway/platform/call_stack.h"

// clang-format off
#include <windows.h>
#include <dbghelp.h>  // needs the one above
// clang-format on

#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>
#include <string>

#include "Marbleway/platform/frame_line.h"
#include "Marbleway/platform/windows/text.h"

namespace marbleway::platform {
namespace {

/// The module that holds an address: its first byte, null if there is none, and its file.
struct Module {
  HMODULE base = nullptr;
  std::filesystem::path file = "?";

  std::string name() const { return narrow(file.filename().native()); }
};

Module moduleOf(std::uintptr_t address) {
  constexpr DWORD kByAddress =
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
  HMODULE module = nullptr;
  std::array<wchar_t, 1024> path{};
  const auto* const place = reinterpret_cast<const wchar_t*>(address);
  // Null stands for the program itself.
  if (place == nullptr || GetModuleHandleExW(kByAddress, place, &module) == FALSE) return {};
  GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
  return {module, path.data()};
}

template <class Function>
Function find(HMODULE library, const char* name) {
  return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

/// The system's library of symbols, for the thread that reports a crash: it is neither safe for
/// threads nor small. It reads the symbols of modules that hold frames; all would take too long.
class Symbols {
 public:
  Symbols() {
    const HMODULE library = LoadLibraryExW(L"dbghelp.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (library == nullptr) return;
    const auto initialize = find<decltype(&SymInitialize)>(library, "SymInitialize");
    load_ = find<decltype(&SymLoadModuleExW)>(library, "SymLoadModuleExW");
    find_ = find<decltype(&SymFromAddr)>(library, "SymFromAddr");
    const HANDLE own = GetCurrentProcess();
    isReady_ =
        initialize != nullptr && load_ != nullptr && find_ != nullptr &&
        // A handle of its own: a host may use the same library for its process.
        DuplicateHandle(own, own, own, &process_, 0, FALSE, DUPLICATE_SAME_ACCESS) != FALSE &&
        initialize(process_, "", FALSE) != FALSE;  // no server of symbols
  }

  /// The function that holds `address` and the offset in it; empty when it is not known.
  std::string nameOf(std::uintptr_t address, const Module& module) const {
    struct Answer : SYMBOL_INFO {
      std::array<char, 512> rest;
    } answer{};
    answer.SizeOfStruct = sizeof(SYMBOL_INFO);
    answer.MaxNameLen = static_cast<ULONG>(answer.rest.size());
    DWORD64 offset = 0;
    if (!isReady_ || module.base == nullptr || GetTickCount64() > end_) return {};
    load_(process_, nullptr, module.file.c_str(), nullptr, reinterpret_cast<DWORD64>(module.base),
          0, nullptr, 0);  // once; later calls change nothing
    if (find_(process_, address, &offset, &answer) == FALSE) return {};
    const std::string name = answer.Name;
    const bool isMangled = name.starts_with("_Z");
    return (isMangled ? demangled(name.c_str()) : name) + " + " + hexadecimal(offset);
  }

 private:
  // Names take no longer than this: the row comes first.
  ULONGLONG end_ = GetTickCount64() + 150;  // milliseconds
  bool isReady_ = false;
  HANDLE process_ = nullptr;
  decltype(&SymLoadModuleExW) load_ = nullptr;
  decltype(&SymFromAddr) find_ = nullptr;
};

std::string lineWith(std::size_t number, std::uintptr_t address, const Module& module,
                     const std::string& function) {
  std::string line = frameLine(number, address, module.name());
  if (!function.empty()) return line.append(" ").append(function);
  if (module.base == nullptr) return line;
  const std::uintptr_t offset = address - reinterpret_cast<std::uintptr_t>(module.base);
  return line.append(" ").append(module.name()).append(" + ").append(hexadecimal(offset));
}

}  // namespace

std::string frameLine(std::size_t number, std::uintptr_t address, AddressKind kind) {
  static const Symbols symbols;
  // A call that never returns may be the last instruction of its function.
  const std::uintptr_t inside =
      address - (kind == AddressKind::returnAddress && address != 0 ? 1 : 0);
  const Module module = moduleOf(inside);
  return lineWith(number, address, module, symbols.nameOf(address, module));
}

std::vector<std::uintptr_t> returnAddresses(const void* caller) {
  std::array<void*, kMaxFrames> frames{};
  const auto count =
      CaptureStackBackTrace(1, static_cast<DWORD>(frames.size()), frames.data(), nullptr);
  const auto end = frames.begin() + count;
  auto first = std::find(frames.begin(), end, caller);
  if (first == end) first = frames.begin();

  std::vector<std::uintptr_t> addresses;
  std::transform(first, end, std::back_inserter(addresses),
                 [](const void* frame) { return reinterpret_cast<std::uintptr_t>(frame); });
  return addresses;
}

// Modules and offsets only: a host's threads call this, and names are not to be had safely there.
std::vector<std::string> symbolsOf(const std::vector<std::uintptr_t>& addresses) {
  std::vector<std::string> lines;
  lines.reserve(addresses.size());
  for (const std::uintptr_t address : addresses) {
    lines.push_back(lineWith(lines.size(), address, moduleOf(address - 1), ""));
  }
  return lines;
}

}  // namespace marbleway::platform
