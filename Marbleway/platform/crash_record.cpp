#include "Marbleway/platform/crash_record.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>

#include "Marbleway/platform/call_stack.h"
#include "Marbleway/platform/frame_line.h"

namespace marbleway::platform {
namespace {

constexpr std::array<char, 8> kFormat{'M', 'R', 'B', 'W', 'C', 'R', '0', '1'};

std::string descriptionOf(const CrashRecord& record) {
  if (record.signal != 0) return causeOf(record);
  if (record.type[0] == '\0') return "std::terminate: no exception";
  return demangled(record.type.data()) + ": " + record.reason.data();
}

std::string frameLineOf(const CrashRecord& record, std::size_t index, Names names) {
  const std::uint64_t address = record.frames[index];
  const bool hasFailed = index == 0 && record.signal != 0;
  if (names == Names::ofThisProcess) {
    return frameLine(index, static_cast<std::uintptr_t>(address),
                     hasFailed ? AddressKind::faultAddress : AddressKind::returnAddress);
  }
  const auto modules = std::span(record.modules).first(record.moduleCount);
  const auto module = std::ranges::find_if(modules, [&](const auto& candidate) {
    return candidate.begin <= address && address < candidate.end;
  });
  if (module == modules.end()) return frameLine(index, address, "?");
  const std::string name = module->name.data();
  return frameLine(index, address, name)
      .append(" " + name + " + ")
      .append(hexadecimal(address - module->base));
}

template <std::size_t size>
bool isText(const std::array<char, size>& text) {
  return std::ranges::find(text, '\0') != text.end();
}

}  // namespace

void clear(CrashRecord& record) {
  std::memset(&record, 0, sizeof record);  // an assignment would need its size in stack
  record.format = kFormat;
}

void copyText(std::span<char> to, const char* from) {
  std::size_t length = strnlen(from, to.size() - 1);
  std::memcpy(to.data(), from, length);
  to[length] = '\0';
}

void recordTime(CrashRecord& record) {
  using std::chrono::milliseconds;
  const auto now = std::chrono::floor<milliseconds>(std::chrono::system_clock::now());
  record.time = now.time_since_epoch().count();
}

Failure failureOf(const CrashRecord& record, Names names) {
  Failure failure{.description = descriptionOf(record), .callStack = {}};
  for (std::size_t i = 0; i < record.depth; ++i) {
    if (i > 0) failure.callStack.append("\n");
    failure.callStack.append(frameLineOf(record, i, names));
  }
  if (record.sessionID[0] != '\0') failure.sessionID = record.sessionID.data();
  failure.time = std::chrono::system_clock::time_point(std::chrono::milliseconds(record.time));
  return failure;
}

bool isUnreported(const CrashRecord& record) {
  const bool isWhole =
      record.format == kFormat && record.depth <= record.frames.size() &&
      record.moduleCount <= record.modules.size() && isText(record.sessionID) &&
      isText(record.type) && isText(record.reason) &&
      std::ranges::all_of(record.modules, [](const auto& module) { return isText(module.name); });
  return isWhole && record.state == CrashRecord::State::withoutRow;
}

}  // namespace marbleway::platform
