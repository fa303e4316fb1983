#include "Marbleway/platform/linux/crash_record.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <utility>

#include "Marbleway/platform/call_stack.h"
#include "Marbleway/platform/linux/call_stack.h"

namespace marbleway::platform {
namespace {

constexpr std::array<char, 8> kFormat{'M', 'R', 'B', 'W', 'C', 'R', '0', '1'};
constexpr int kMaxFiles = 32;

// --- the kernel's map of the process

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

// --- texts

std::string descriptionOf(const CrashRecord& record) {
  if (record.signal == 0 && record.type[0] == '\0') return "std::terminate: no exception";
  if (record.signal == 0) return demangled(record.type.data()) + ": " + record.reason.data();
  std::string text = "Signal " + std::to_string(record.signal);
  const char* const name = sigabbrev_np(record.signal);
  const char* const meaning = sigdescr_np(record.signal);
  text.append(" (SIG").append(name != nullptr ? name : "?").append("): ");
  text.append(meaning != nullptr ? meaning : "?");
  // A signal that was sent has no address, nor has one without details from the kernel.
  const bool hasAddress = record.code > 0 && record.code != SI_KERNEL;
  return hasAddress ? text.append(" at address ").append(hexadecimal(record.address)) : text;
}

std::string frameLineOf(const CrashRecord& record, std::size_t index, Names names) {
  const std::uint64_t address = record.frames[index];
  const bool hasFailed = index == 0 && record.signal != 0;
  if (names == Names::ofThisProcess) {
    return frameLine(index, address,
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

// --- files

std::string pathOf(const std::string& directory, int number) {
  return directory + "/crash-record-" + std::to_string(number) + ".bin";
}

// A regular file, for this process alone; -1 when it is another's, or none.
int openLocked(const std::string& path, int flags) {
  const int descriptor =
      open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | flags, S_IRUSR | S_IWUSR);
  if (descriptor < 0) return -1;
  struct stat facts {};
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  // The lock belongs to the process: it ends with it, and a fork's child does not have it.
  const bool isOurs = fstat(descriptor, &facts) == 0 && S_ISREG(facts.st_mode) &&
                      fcntl(descriptor, F_SETLK, &lock) == 0;
  if (isOurs) return descriptor;
  close(descriptor);
  return -1;
}

template <std::size_t size>
bool isText(const std::array<char, size>& text) {
  return std::ranges::find(text, '\0') != text.end();
}

// False when it holds no crash without a row, or not one that this version wrote.
bool readUnreported(int descriptor, CrashRecord& record) {
  if (pread(descriptor, &record, sizeof record, 0) != sizeof record) return false;
  const bool isWhole =
      record.format == kFormat && record.depth <= record.frames.size() &&
      record.moduleCount <= record.modules.size() && isText(record.sessionID) &&
      isText(record.type) && isText(record.reason) &&
      std::ranges::all_of(record.modules, [](const auto& module) { return isText(module.name); });
  return isWhole && record.state == CrashRecord::State::withoutRow;
}

void writeStateTo(int descriptor, CrashRecord::State state) {
  (void)!pwrite(descriptor, &state, sizeof state, offsetof(CrashRecord, state));
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

bool CrashFile::open(const std::string& directory) {
  close();
  CrashRecord record{};
  for (int number = 0; number < kMaxFiles; ++number) {
    const int descriptor = openLocked(pathOf(directory, number), O_CREAT);
    if (descriptor < 0) continue;
    struct stat facts {};
    fstat(descriptor, &facts);
    const bool isFree = !readUnreported(descriptor, record);
    clear(record);
    if (isFree && pwrite(descriptor, &record, sizeof record, 0) == sizeof record) {
      descriptor_ = descriptor;
      device_ = facts.st_dev;
      file_ = facts.st_ino;
      return true;
    }
    ::close(descriptor);
  }
  return false;
}

void CrashFile::close() {
  if (isOpen()) ::close(descriptor_);
  descriptor_ = -1;
}

// A host that closes all descriptors may have opened a file of its own under this number.
bool CrashFile::isOpen() const {
  struct stat facts {};
  return descriptor_ >= 0 && fstat(descriptor_, &facts) == 0 && facts.st_dev == device_ &&
         facts.st_ino == file_;
}

void CrashFile::write(const CrashRecord& record) const {
  if (isOpen()) (void)!pwrite(descriptor_, &record, sizeof record, 0);
}

void CrashFile::writeState(CrashRecord::State state) const {
  if (isOpen()) writeStateTo(descriptor_, state);
}

void CrashFile::reportEarlier(const std::string& directory, FailureHandler handler) const {
  const bool hasFile = isOpen();
  for (int number = 0; number < kMaxFiles; ++number) {
    const std::string path = pathOf(directory, number);
    struct stat facts {};
    if (lstat(path.c_str(), &facts) != 0) return;  // files are made in order and not removed
    // Closing any descriptor of its own file would end this process's lock.
    if (hasFile && facts.st_dev == device_ && facts.st_ino == file_) continue;
    const int descriptor = openLocked(path, 0);
    if (descriptor < 0) continue;
    CrashRecord record{};
    if (readUnreported(descriptor, record)) {
      Failure failure = failureOf(record, Names::none);
      failure.onRecorded = [descriptor] { writeStateTo(descriptor, CrashRecord::State::withRow); };
      handler(failure);
    }
    ::close(descriptor);
  }
}

}  // namespace marbleway::platform
