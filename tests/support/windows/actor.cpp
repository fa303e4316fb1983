#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/services.h"
#include "Marbleway/upload/batch.h"
#include "tests/support/library.h"

// A process with the library, for tests that end it: "actor ACTION DIRECTORY URL".
namespace marbleway::tests {

// Not unknown to other files: the compiler would know each call.
struct Abstract {
  Abstract() {
    Abstract* volatile self = this;
    self->pure();
  }
  virtual ~Abstract() = default;
  virtual void pure() = 0;
};
struct Concrete : Abstract {
  void pure() override {}
};

namespace {

std::filesystem::path directory;
std::string url;

void report() { std::ofstream(directory / "reports", std::ios::app) << '.'; }
void start() {
  startLibrary(directory, url);
  Marbleway::startSession();
}
void record() {
  start();
  for (int row = 0;; ++row) Marbleway::trackEvent(std::to_string(row)), report();
}
void change() {
  const auto settings = platform::makeFileDefaults(directory / "user-defaults.json");
  for (int i = 0;; ++i, report()) {
    settings->setText(std::to_string(i), "value");
    settings->synchronize();
  }
}
void send() {
  start();
  isConnectedToInternet = true;
  batchData();
  report();
}

void* volatile badAddress = reinterpret_cast<void*>(16);  // NOLINT(performance-no-int-to-ptr)
volatile int one = 1, zero = 0;
void divide() { one = std::div(one, zero).quot; }
void writeToBadAddress() { *static_cast<volatile int*>(badAddress) = 1; }
void throwError() { throw std::runtime_error("disk on fire"); }
LONG WINAPI endProcess(EXCEPTION_POINTERS* /*failure*/) {
  return TerminateProcess(GetCurrentProcess(), 7);
}

const struct {
  std::string_view name;
  void (*run)();
} kActions[] = {
    {"Start", start},
    {"Record", record},
    {"Change", change},
    {"Return", send},
    {"Exit", [] { send(), ExitProcess(0); }},
    {"Write", [] { start(), writeToBadAddress(); }},
    {"Divide", [] { start(), divide(); }},
    {"IllegalInstruction", [] { start(), __builtin_trap(); }},
    {"Abort", [] { start(), std::abort(); }},
    {"Throw", [] { start(), throwError(); }},
    {"PureCall", [] { start(), Concrete(); }},
    {"FilterExits", [] { SetUnhandledExceptionFilter(endProcess), start(), writeToBadAddress(); }},
    {"ThrowFilterExits",
     [] {
       SetUnhandledExceptionFilter(endProcess), start();
       // The compiler's own threads, and main, turn a throw into std::terminate.
       const auto body = [](void*) -> DWORD { return throwError(), 0; };
       WaitForSingleObject(CreateThread(nullptr, 0, body, nullptr, 0, nullptr), INFINITE);
     }},
    {"ChainAfterARestart",
     [] {
       start();
       static LPTOP_LEVEL_EXCEPTION_FILTER former = nullptr;
       former =
           SetUnhandledExceptionFilter([](EXCEPTION_POINTERS* failure) { return former(failure); });
       shutdown();
       start(), writeToBadAddress();
     }},
    {"FilterRepairs",
     [] {
       SetUnhandledExceptionFilter([](EXCEPTION_POINTERS* failure) -> LONG {
         zero = 1;
         failure->ContextRecord->Rcx = 1;  // NOLINT: the divisor
         return EXCEPTION_CONTINUE_EXECUTION;
       });
       start();
       int quotient = 1, rest = 0, divisor = zero;
       __asm__ volatile("idivl %%ecx" : "+a"(quotient), "+d"(rest) : "c"(divisor));
     }},
};

}  // namespace
}  // namespace marbleway::tests

int main(int count, char** arguments) {
  using namespace marbleway::tests;
  if (count != 4) return 2;
  SetErrorMode(SEM_NOGPFAULTERRORBOX);  // a crash starts no debugger, which might change its end
  directory = arguments[2], url = arguments[3];
  std::ranges::find(kActions, std::string_view(arguments[1]), [](const auto& each) {
    return each.name;
  })->run();
}
