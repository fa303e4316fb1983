#include "Marbleway/platform/call_stack.h"

#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <string_view>

#include "Marbleway/platform/frame_line.h"

namespace marbleway::platform {
namespace {

/// The file's name without its folders.
std::string moduleName(const Dl_info& place) {
  const std::string path = place.dli_fname != nullptr ? place.dli_fname : "?";
  return path.substr(path.rfind('/') + 1);
}

/// The source form of a function's name. One of C, such as "f", is not taken for a type.
std::string functionName(std::string_view symbol) {
  return symbol.starts_with("_Z") ? demangled(symbol.data()) : std::string(symbol);
}

std::uintptr_t addressOf(const void* pointer) { return reinterpret_cast<std::uintptr_t>(pointer); }

}  // namespace

std::string frameLine(std::size_t number, std::uintptr_t address, AddressKind kind) {
  // A call that never returns may be the last instruction of its function.
  const std::uintptr_t inside =
      address - (kind == AddressKind::returnAddress && address != 0 ? 1 : 0);
  Dl_info place{};
  const bool isKnown = dladdr(std::bit_cast<const void*>(inside), &place) != 0;
  const std::string module = moduleName(place);

  std::string line = frameLine(number, address, module);
  if (!isKnown) return line;

  const bool isNamed = place.dli_sname != nullptr;
  const void* start = isNamed ? place.dli_saddr : place.dli_fbase;
  line.append(" ").append(isNamed ? functionName(place.dli_sname) : module);
  return line.append(" + ").append(hexadecimal(address - addressOf(start)));
}

std::vector<std::uintptr_t> returnAddresses(const void* caller) {
  std::array<void*, kMaxFrames> frames{};
  const int count = backtrace(frames.data(), static_cast<int>(frames.size()));
  const auto end = frames.begin() + count;
  auto first = std::find(frames.begin(), end, caller);
  if (first == end) first = std::find(frames.begin(), end, __builtin_return_address(0));
  if (first == end) first = frames.begin();

  std::vector<std::uintptr_t> addresses;
  std::transform(first, end, std::back_inserter(addresses), addressOf);
  return addresses;
}

std::vector<std::string> symbolsOf(const std::vector<std::uintptr_t>& addresses) {
  std::vector<std::string> lines;
  lines.reserve(addresses.size());
  for (const std::uintptr_t address : addresses) {
    lines.push_back(frameLine(lines.size(), address, AddressKind::returnAddress));
  }
  return lines;
}

}  // namespace marbleway::platform
