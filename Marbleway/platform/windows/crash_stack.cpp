#include "Marbleway/platform/windows/crash_stack.h"

#include <winternl.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <span>

#include "Marbleway/platform/frame_line.h"

namespace marbleway::platform {
namespace {

// The system call behind VirtualQuery: it names the file of a mapping without the loader's lock and
// without the heap, as GetMappedFileName does not.
using QueryMemory = NTSTATUS(NTAPI*)(HANDLE, void*, int, void*, SIZE_T, SIZE_T*);
constexpr int kMappedFileName = 2;
constinit std::atomic<QueryMemory> queryMemory{nullptr};

void* pointerTo(std::uint64_t address) { return std::bit_cast<void*>(address); }

struct Bounds {
  std::uint64_t begin, end;
  bool hold(std::uint64_t address) const {
    return begin <= address && address <= end - sizeof(std::uint64_t);
  }
};

// Of the committed part of the calling thread's stack that is above `top`.
Bounds stackAbove(std::uint64_t top) {
  ULONG_PTR lowest = 0, end = 0;
  GetCurrentThreadStackLimits(&lowest, &end);
  return {top, end};
}

// Moves `registers` from a function to its caller. False at the end of the stack. A function
// without unwind data, such as an address that holds no code, has just been called.
bool leaveFunction(CONTEXT& registers, const Bounds& stack) {
  DWORD64 base = 0;
  if (!stack.hold(registers.Rsp)) return false;
  const PRUNTIME_FUNCTION function = RtlLookupFunctionEntry(registers.Rip, &base, nullptr);
  if (function == nullptr) {
    registers.Rip = *static_cast<const DWORD64*>(pointerTo(registers.Rsp));
    registers.Rsp += sizeof(DWORD64);
  } else {
    void* data = nullptr;
    DWORD64 frame = 0;
    RtlVirtualUnwind(UNW_FLAG_NHANDLER, base, registers.Rip, function, &registers, &data, &frame,
                     nullptr);
  }
  return registers.Rip != 0;
}

void copyName(CrashRecord::Module& module, std::uint64_t base) {
  alignas(UNICODE_STRING) static constinit std::array<std::byte, 1024> answer{};
  const QueryMemory query = queryMemory;
  copyText(module.name, "?");
  SIZE_T length = 0;
  if (query == nullptr || query(GetCurrentProcess(), pointerTo(base), kMappedFileName,
                                answer.data(), answer.size(), &length) < 0) {
    return;
  }
  UNICODE_STRING path{};
  std::memcpy(&path, answer.data(), sizeof path);
  const std::span text(path.Buffer, path.Length / sizeof(wchar_t));
  const auto last = std::find(text.rbegin(), text.rend(), L'\\').base();
  const auto room = static_cast<int>(module.name.size()) - 1;
  int count = 0;
  // As many characters as there is room for: the conversion of more fails.
  for (int units = std::min(static_cast<int>(text.end() - last), room); units > 0 && count == 0;
       --units) {
    count =
        WideCharToMultiByte(CP_UTF8, 0, &*last, units, module.name.data(), room, nullptr, nullptr);
  }
  module.name[static_cast<std::size_t>(count)] = '\0';
}

// The size in memory that a module's header gives.
std::uint64_t imageSize(std::uint64_t base) {
  const auto* const dos = static_cast<const IMAGE_DOS_HEADER*>(pointerTo(base));
  if (dos->e_magic != IMAGE_DOS_SIGNATURE) return 0;
  const auto* const header = static_cast<const IMAGE_NT_HEADERS64*>(
      pointerTo(base + static_cast<std::uint32_t>(dos->e_lfanew)));
  return header->OptionalHeader.SizeOfImage;
}

}  // namespace

void prepareWalk() {
  const HMODULE system = GetModuleHandleW(L"ntdll.dll");
  queryMemory = reinterpret_cast<QueryMemory>(
      reinterpret_cast<void*>(GetProcAddress(system, "NtQueryVirtualMemory")));
}

void recordFramesFrom(CrashRecord& record, const CONTEXT& registers) {
  static CONTEXT present;  // of the one failing thread, whose stack may be used up
  present = registers;
  const Bounds stack = stackAbove(present.Rsp);
  do {
    record.frames[record.depth++] = present.Rip;
  } while (record.depth < record.frames.size() && leaveFunction(present, stack));
}

const void* callersReturnAddress() {
  void* address = nullptr;  // above this function and the one that calls it
  CaptureStackBackTrace(2, 1, &address, nullptr);
  return address;
}

void recordFramesHere(CrashRecord& record, const void* caller) {
  static constinit std::array<void*, kMaxFrames> frames{};
  const auto count =
      CaptureStackBackTrace(0, static_cast<DWORD>(frames.size()), frames.data(), nullptr);
  const auto end = std::find(frames.begin(), frames.begin() + count, nullptr);
  auto first = std::find(frames.begin(), end, caller);
  if (first == end) first = frames.begin();
  for (; first != end && record.depth < record.frames.size(); ++first) {
    record.frames[record.depth++] = reinterpret_cast<std::uint64_t>(*first);
  }
}

void findModules(CrashRecord& record) {
  for (const std::uint64_t frame : std::span(record.frames).first(record.depth)) {
    MEMORY_BASIC_INFORMATION facts{};
    if (VirtualQuery(pointerTo(frame), &facts, sizeof facts) == 0) continue;
    const auto base = reinterpret_cast<std::uint64_t>(facts.AllocationBase);
    const auto known = std::span(record.modules).first(record.moduleCount);
    if (facts.Type != MEM_IMAGE ||
        std::ranges::count(known, base, &CrashRecord::Module::base) > 0) {
      continue;
    }
    if (record.moduleCount == record.modules.size()) return;
    CrashRecord::Module& module = record.modules[record.moduleCount++];
    module.base = module.begin = base;
    module.end = base + imageSize(base);
    copyName(module, base);
  }
}

}  // namespace marbleway::platform
