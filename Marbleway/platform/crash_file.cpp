#include "Marbleway/platform/crash_file.h"

#include "Marbleway/platform/paths.h"

namespace marbleway::platform {
namespace {

constexpr int kMaxFiles = 32;

std::string pathOf(const std::string& directory, int number) {
  return utf8Of(pathFrom(directory) / ("crash-record-" + std::to_string(number) + ".bin"));
}

bool readUnreported(const LockedFile& file, CrashRecord& record) {
  return file.read(std::as_writable_bytes(std::span(&record, 1))) && isUnreported(record);
}

bool writeRecord(const LockedFile& file, const CrashRecord& record) {
  return file.write(0, std::as_bytes(std::span(&record, 1)));
}

void writeStateTo(const LockedFile& file, CrashRecord::State state) {
  file.write(offsetof(CrashRecord, state), std::as_bytes(std::span(&state, 1)));
}

}  // namespace

bool CrashFile::open(const std::string& directory) {
  close();
  CrashRecord record{};
  for (int number = 0; number < kMaxFiles; ++number) {
    if (!file_.open(pathOf(directory, number), true)) continue;
    const bool isFree = !readUnreported(file_, record);
    clear(record);
    if (isFree && writeRecord(file_, record)) return true;
    close();
  }
  return false;
}

void CrashFile::write(const CrashRecord& record) const {
  if (file_.isOpen()) writeRecord(file_, record);
}

void CrashFile::writeState(CrashRecord::State state) const {
  if (file_.isOpen()) writeStateTo(file_, state);
}

void CrashFile::reportEarlier(const std::string& directory, FailureHandler handler) const {
  for (int number = 0; number < kMaxFiles; ++number) {
    const std::string path = pathOf(directory, number);
    if (kindOf(path.c_str()) == FileKind::missing) return;  // they are made in order, not removed
    LockedFile earlier;
    if (file_.isAt(path) || !earlier.open(path, false)) continue;
    CrashRecord record{};
    if (readUnreported(earlier, record)) {
      Failure failure = failureOf(record, Names::none);
      failure.onRecorded = [&earlier] { writeStateTo(earlier, CrashRecord::State::withRow); };
      handler(failure);
    }
    earlier.close();
  }
}

}  // namespace marbleway::platform
