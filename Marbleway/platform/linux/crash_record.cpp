#include "Marbleway/platform/crash_record.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>

#include "Marbleway/platform/frame_line.h"

namespace marbleway::platform {
namespace {

std::uint64_t takeHexadecimal(const char*& at) {
  std::uint64_t number = 0;
  for (;; ++at) {
    const char c = *at;
    const bool isDigit = c >= '0' && c <= '9';
    if (!isDigit && (c < 'a' || c > 'f')) return number;
    number = number * 16 + static_cast<std::uint64_t>(isDigit ? c - '0' : c - 'a' + 10);
  }
}

// Takes "begin-end rwxp offset device inode path" if the mapping is a file's code and holds a
// frame.
void takeMapping(CrashRecord& record, const char* line, std::uint64_t& base) {
  const char* at = line;
  const std::uint64_t begin = takeHexadecimal(at);
  const std::uint64_t end = takeHexadecimal(++at);
  const bool isCode = at[3] == 'x';
  at += 6;
  if (takeHexadecimal(at) == 0) base = begin;
  const char* const path = std::strpbrk(line, "/[");
  const auto holds = [&](std::uint64_t frame) { return begin <= frame && frame < end; };
  const auto frames = std::span(record.frames).first(record.depth);
  if (!isCode || path == nullptr || std::ranges::none_of(frames, holds)) return;
  if (record.moduleCount == record.modules.size()) return;
  CrashRecord::Module& module = record.modules[record.moduleCount++];
  module.base = base;
  module.begin = begin;
  module.end = end;
  const char* const folders = std::strrchr(path, '/');
  copyText(module.name, folders != nullptr ? folders + 1 : path);
}

}  // namespace

// The kernel's map is read, not the loader's list.
void findModules(CrashRecord& record) {
  static constinit std::array<char, 512> line{}, bytes{};  // of the one failing thread
  const int map = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (map < 0) return;
  std::size_t length = 0;
  std::uint64_t base = 0;
  for (ssize_t count = 0; (count = read(map, bytes.data(), bytes.size())) > 0;) {
    for (const char c : std::span(bytes).first(static_cast<std::size_t>(count))) {
      line[length] = c == '\n' ? '\0' : c;
      if (c == '\n') {
        takeMapping(record, line.data(), base);
        length = 0;
      } else if (++length == line.size()) {
        length = line.size() / 2;  // a long path: its end counts
      }
    }
  }
  ::close(map);
}

std::string causeOf(const CrashRecord& record) {
  std::string text = "Signal " + std::to_string(record.signal);
  const char* const name = sigabbrev_np(record.signal);
  const char* const meaning = sigdescr_np(record.signal);
  text.append(" (SIG").append(name != nullptr ? name : "?").append("): ");
  text.append(meaning != nullptr ? meaning : "?");
  // A signal that was sent has no address, nor has one without details from the kernel.
  const bool hasAddress = record.code > 0 && record.code != SI_KERNEL;
  return hasAddress ? text.append(" at address ").append(hexadecimal(record.address)) : text;
}

}  // namespace marbleway::platform
