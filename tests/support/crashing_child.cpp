// Fails in the way that its first argument names, once the crash hook is installed. What the hook
// reports, and what the handlers from before say, goes to standard output. With a directory for a
// second argument it is the library, started there, that installs the hook.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/platform/linux/crash_hook.h"

// Functions that a call stack can name.
namespace failing {

void throwNumber() { throw 7; }
void throwError() { throw std::runtime_error("disk on fire"); }

struct Liar : std::exception {
  const char* what() const noexcept override { return throwNumber(), ""; }
};
void throwLiar() { throw Liar(); }

template <void (*fail)(), std::ptrdiff_t count = 1>
void failInThreads() {
  static std::barrier start(count);
  std::vector<std::jthread> threads;
  while (std::ssize(threads) < count) threads.emplace_back([] { start.arrive_and_wait(), fail(); });
}

// Real faults, none of which a compiler or a sanitizer foresees.
void* volatile badAddress = reinterpret_cast<void*>(16);  // NOLINT(performance-no-int-to-ptr)
volatile int one = 1, zero = 0;

void writeToBadAddress() { *static_cast<volatile int*>(badAddress) = 1; }
void divideByZero() { one = std::div(one, zero).quot; }
void jumpToBadAddress() { reinterpret_cast<void (*)()>(badAddress)(); }
int useUpStack(int depth) {
  volatile char room[4096] = {};
  room[0] = static_cast<char>(depth);
  return depth < 0 ? 0 : useUpStack(depth + 1) + room[0];
}

}  // namespace failing

namespace {

using namespace failing;
using marbleway::platform::Failure;

void say(std::string_view text) { (void)!write(STDOUT_FILENO, text.data(), text.size()); }

template <void (*fail)()>
void failInForkedChild() {
  const pid_t child = fork();
  if (child == 0) []() noexcept { fail(); }();
  int status = 0;
  waitpid(child, &status, 0);
  _exit(WIFSIGNALED(status) ? WTERMSIG(status) : -1);
}

// What stands before the hook is installed.
void sayAndAbort() { say("former terminate handler\n"), std::abort(); }
void setFormerHandler() {
  struct sigaction action {};
  action.sa_sigaction = [](int number, siginfo_t* info, void* /*context*/) {
    const bool isTrue = number == SIGSEGV && info->si_addr == badAddress;
    say(isTrue ? "former handler\n" : "former handler, facts lost\n");
    _exit(3);
  };
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &action, nullptr);
}
void refuseThreads() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_NPROC, &none);
  if (getuid() == 0) (void)!setuid(65534);  // the limit does not hold for root
}

// Handlers of the hook.
void sayReport(const Failure& failure) {
  say("report: " + failure.description + "\n" + failure.callStack + "\nend\n");
}
void block() {
  for (;;) pause();
}
template <void (*fail)()>
void sayAndFail(const Failure& failure) {
  sayReport(failure);
  fail();
}
void sayAndTerminate(const Failure& failure) noexcept { sayAndFail<throwError>(failure); }

struct Case {
  std::string_view name;
  void (*fail)();
  void (*before)() = [] {};
  void (*handler)(const Failure&) = sayReport;
};

const Case kCases[] = {
    {"throw", throwError},
    {"throw a number", throwNumber},
    {"throw in a thread", failInThreads<throwError>},
    {"throw in twenty threads", failInThreads<throwError, 20>},
    {"throw a number in a thread", failInThreads<throwNumber>},
    {"what throws in a thread", failInThreads<throwLiar>},
    {"terminate in a thread", failInThreads<std::terminate>},
    {"what throws", throwLiar},
    {"terminate", std::terminate},
    {"write", writeToBadAddress},
    {"jump", jumpToBadAddress},
    {"divide", divideByZero},
    {"abort", std::abort},
    {"raise SIGBUS", [] { std::raise(SIGBUS); }},
    {"raise SIGILL", [] { std::raise(SIGILL); }},
    {"overflow", [] { useUpStack(0); }},
    {"former terminate", throwError, [] { std::set_terminate(sayAndAbort); }},
    {"former handler", writeToBadAddress, setFormerHandler},
    {"ignored", [] { std::raise(SIGABRT); }, [] { std::signal(SIGABRT, SIG_IGN); }},
    {"fork", failInForkedChild<writeToBadAddress>},
    {"fork, throw", failInForkedChild<throwError>},
    {"handler blocks", throwError, [] {}, sayAndFail<block>},
    {"handler throws", writeToBadAddress, [] {}, sayAndFail<throwError>},
    {"handler crashes", std::abort, [] {}, sayAndFail<writeToBadAddress>},
    {"handler terminates", writeToBadAddress, [] {}, sayAndTerminate},
    {"no thread, throw", throwError, refuseThreads},
    {"no thread, write", writeToBadAddress, refuseThreads},
    {"no thread, handler terminates", throwError, refuseThreads, sayAndTerminate},
};

void installHook(void (*handler)(const Failure&)) {
  const auto hook = marbleway::platform::makeCrashHook();
  hook->install(handler);
  hook->install([](const Failure&) { say("second handler\n"); });
}

void startLibrary(const char* directory) {
  marbleway::Configuration host;
  host.documentsDirectory = directory;
  marbleway::configure(std::move(host));
  Marbleway::initMarbleway("token", {{"LoggingEnabled", false}, {"SDKEnvironment", 1}});
  Marbleway::startSession();
}

}  // namespace

int main(int count, char** arguments) {
  const auto* chosen = std::ranges::find(kCases, std::string_view(arguments[1]), &Case::name);
  if (chosen == std::end(kCases)) return 2;
  chosen->before();
  if (count > 2) {
    startLibrary(arguments[2]);
  } else {
    installHook(chosen->handler);
  }
  chosen->fail();
}
