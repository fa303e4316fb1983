#include <windows.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>

#include "Marbleway/platform/background_thread.h"
#include "Marbleway/platform/services.h"
#include "Marbleway/platform/windows/text.h"

namespace marbleway::platform {
namespace {

/// How long a caller waits for its line. The first line that takes longer is still written once the
/// reader reads; those that come meanwhile are lost.
constexpr std::chrono::milliseconds kLineTimeout{20};

// A null file stands for the debugger, whose output may wait ten seconds for its reader.
void write(HANDLE file, const std::string& line) {
  DWORD written = 0;
  if (file == nullptr) return OutputDebugStringW(wide(line).c_str());
  if (DWORD mode = 0; GetConsoleMode(file, &mode) != 0) {
    const std::wstring text = wide(line);
    (void)WriteConsoleW(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  } else {
    (void)WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
  }
}

/// Writes to what may have no room: a pipe, or a console in which a person selects text. There is
/// no write that returns at once, so a thread writes. It is not joined: a write has no end while
/// nobody reads.
class LineWriter : public std::enable_shared_from_this<LineWriter> {
 public:
  explicit LineWriter(HANDLE file) : file_(file) {}

  void take(std::string line) {
    std::unique_lock lock(mutex_);
    if (!isStarted_) start();
    if (isBusy_ && isStalled_) return;
    const auto isIdle = [this] { return !isBusy_; };
    const auto until = std::chrono::steady_clock::now() + kLineTimeout;
    if (changed_.wait_until(lock, until, isIdle)) {
      line_ = std::move(line);
      isBusy_ = true;
      changed_.notify_all();
    }
    isStalled_ = !changed_.wait_until(lock, until, isIdle);
  }

 private:
  /// `mutex_` is held. Throws std::system_error when the system has no thread left.
  void start() {
    pinModule();
    startBackgroundThread([self = shared_from_this()] { self->run(); }).detach();
    isStarted_ = true;
  }

  [[noreturn]] void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return isBusy_; });
      lock.unlock();
      write(file_, line_);
      lock.lock();
      isBusy_ = false;
      changed_.notify_all();
    }
  }

  const HANDLE file_;
  std::mutex mutex_;  // guards the rest; `line_` is the thread's while `isBusy_`
  std::condition_variable changed_;
  std::string line_;
  bool isStarted_ = false;
  bool isBusy_ = false;
  bool isStalled_ = false;  // nobody has read for as long as a caller waits
};

class StandardError final : public Console {
 public:
  void writeLine(std::string_view line) override {
    // One block, so that lines of several threads and processes stay whole.
    std::string whole;
    whole.reserve(line.size() + 1);
    whole.append(line).push_back('\n');
    if (type_ == FILE_TYPE_UNKNOWN) return writer_->take(std::move(whole));
    // The number of a handle that the host has closed may be that of another object.
    if (GetStdHandle(STD_ERROR_HANDLE) != handle_ || GetFileType(handle_) != type_) return;
    if (type_ == FILE_TYPE_DISK) return write(handle_, whole);
    writer_->take(std::move(whole));
  }

 private:
  const HANDLE handle_ = GetStdHandle(STD_ERROR_HANDLE);
  const DWORD type_ = handle_ != nullptr ? GetFileType(handle_) : FILE_TYPE_UNKNOWN;
  const std::shared_ptr<LineWriter> writer_ =
      std::make_shared<LineWriter>(type_ != FILE_TYPE_UNKNOWN ? handle_ : nullptr);
};

}  // namespace

std::shared_ptr<Console> makeStandardError() { return std::make_shared<StandardError>(); }

}  // namespace marbleway::platform
