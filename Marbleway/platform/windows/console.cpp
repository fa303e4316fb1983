#include <windows.h>

#include <atomic>
#include <string>

#include "Marbleway/platform/services.h"
#include "Marbleway/platform/windows/text.h"

namespace marbleway::platform {
namespace {

/// Writes what a pipe takes at once; a line that would have to wait is lost.
void writeToPipe(HANDLE pipe, const std::string& line) {
  // Whoever asked for the pipe to wait still has it wait: the state is that of this end alone.
  DWORD former = 0;
  if (GetNamedPipeHandleStateW(pipe, &former, nullptr, nullptr, nullptr, nullptr, 0) == 0) return;
  DWORD withoutWaiting = (former & PIPE_READMODE_MESSAGE) | PIPE_NOWAIT;
  if (SetNamedPipeHandleState(pipe, &withoutWaiting, nullptr, nullptr) == 0) return;
  DWORD written = 0;
  (void)WriteFile(pipe, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
  former &= PIPE_READMODE_MESSAGE | PIPE_NOWAIT;
  (void)SetNamedPipeHandleState(pipe, &former, nullptr, nullptr);
}

class StandardError final : public Console {
 public:
  StandardError()
      : handle_(GetStdHandle(STD_ERROR_HANDLE)),
        type_(handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE ? GetFileType(handle_)
                                                                    : FILE_TYPE_UNKNOWN) {}

  void writeLine(std::string_view line) override {
    // One block, so that lines of several threads and processes stay whole.
    std::string whole;
    whole.reserve(line.size() + 1);
    whole.append(line).push_back('\n');
    if (type_ == FILE_TYPE_UNKNOWN) return OutputDebugStringW(wide(whole).c_str());
    // The number of a handle that the host has closed may be that of another object.
    if (GetStdHandle(STD_ERROR_HANDLE) != handle_ || GetFileType(handle_) != type_) return;

    DWORD written = 0;
    if (DWORD mode = 0; GetConsoleMode(handle_, &mode) != 0) {
      const std::wstring text = wide(whole);
      (void)WriteConsoleW(handle_, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    } else if (type_ == FILE_TYPE_PIPE) {
      writeToPipe(handle_, whole);
    } else {
      (void)WriteFile(handle_, whole.data(), static_cast<DWORD>(whole.size()), &written, nullptr);
    }
  }

 private:
  const HANDLE handle_;
  const DWORD type_;
};

}  // namespace

std::shared_ptr<Console> makeStandardError() { return std::make_shared<StandardError>(); }

}  // namespace marbleway::platform
