#include "Marbleway/platform/windows/crash_cause.h"

#include <windows.h>

#include <algorithm>
#include <csignal>
#include <iterator>

#include "Marbleway/platform/crash_record.h"
#include "Marbleway/platform/frame_line.h"

namespace marbleway::platform {
namespace {

struct Name {
  std::uint32_t code = 0;
  const char* text = nullptr;
};

constexpr Name kExceptions[] = {
    {EXCEPTION_ACCESS_VIOLATION, "EXCEPTION_ACCESS_VIOLATION"},
    {EXCEPTION_IN_PAGE_ERROR, "EXCEPTION_IN_PAGE_ERROR"},
    {EXCEPTION_STACK_OVERFLOW, "EXCEPTION_STACK_OVERFLOW"},
    {EXCEPTION_ILLEGAL_INSTRUCTION, "EXCEPTION_ILLEGAL_INSTRUCTION"},
    {EXCEPTION_PRIV_INSTRUCTION, "EXCEPTION_PRIV_INSTRUCTION"},
    {EXCEPTION_INT_DIVIDE_BY_ZERO, "EXCEPTION_INT_DIVIDE_BY_ZERO"},
    {EXCEPTION_INT_OVERFLOW, "EXCEPTION_INT_OVERFLOW"},
    {EXCEPTION_FLT_DIVIDE_BY_ZERO, "EXCEPTION_FLT_DIVIDE_BY_ZERO"},
    {EXCEPTION_FLT_INVALID_OPERATION, "EXCEPTION_FLT_INVALID_OPERATION"},
    {EXCEPTION_DATATYPE_MISALIGNMENT, "EXCEPTION_DATATYPE_MISALIGNMENT"},
    {EXCEPTION_ARRAY_BOUNDS_EXCEEDED, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED"},
    {EXCEPTION_NONCONTINUABLE_EXCEPTION, "EXCEPTION_NONCONTINUABLE_EXCEPTION"},
    {EXCEPTION_BREAKPOINT, "EXCEPTION_BREAKPOINT"},
    {0x20474343, "C++ exception"},  // of g++
    {0xE06D7363, "C++ exception"},
};

const char* accessOf(const CrashRecord& record) {
  if (!isAccess(static_cast<std::uint32_t>(record.signal))) return "";
  return record.code == 0 ? "reading " : record.code == 1 ? "writing " : "executing ";
}

}  // namespace

bool isAccess(std::uint32_t code) {
  return code == EXCEPTION_ACCESS_VIOLATION || code == EXCEPTION_IN_PAGE_ERROR;
}

std::string causeOf(const CrashRecord& record) {
  if (record.signal == SIGABRT) return "Signal 22 (SIGABRT): Aborted";
  if (record.signal == kInvalidParameter) return "Invalid parameter";
  if (record.signal == kPureCall) return "Pure virtual call";
  const auto code = static_cast<std::uint32_t>(record.signal);
  const auto* const name = std::ranges::find(kExceptions, code, &Name::code);
  return "Exception " + hexadecimal(code, 8) + " (" +
         (name != std::end(kExceptions) ? name->text : "?") + ") " + accessOf(record) +
         "at address " + hexadecimal(record.address);
}

}  // namespace marbleway::platform
