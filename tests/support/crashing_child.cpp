// Fails in the way that its argument names, once the crash hook is installed. What the hook
// reports, and what the handlers from before say, goes to standard output.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <barrier>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "platform/linux/crash_hook.h"

// Functions that a call stack can name.
namespace failing {

void say(std::string_view text) { (void)!write(STDOUT_FILENO, text.data(), text.size()); }

void throwNumber() { throw 7; }

struct Liar : std::exception {
  const char* what() const noexcept override {
    throwNumber();
    return "";
  }
};

void throwError() { throw std::runtime_error("disk on fire"); }
void throwLiar() { throw Liar(); }
void throwInThread() { std::thread(throwError).join(); }

void throwInFourThreads() {
  constexpr int kThreads = 4;
  static std::barrier start(kThreads);
  std::array<std::thread, kThreads> threads;
  for (auto& thread : threads) {
    thread = std::thread([] {
      start.arrive_and_wait();
      throwError();
    });
  }
  for (auto& thread : threads) thread.join();
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

int statusOfForkedChild(void (*fail)()) {
  const pid_t child = fork();
  if (child == 0) fail();
  int status = 0;
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
}

// What stands before the hook is installed.
void sayAndAbort() {
  say("former terminate handler\n");
  std::abort();
}
void sayAndExit(int number, siginfo_t* info, void* /*context*/) {
  const bool isTrue = number == SIGSEGV && info->si_addr == badAddress;
  say(isTrue ? "former handler\n" : "former handler, facts lost\n");
  _exit(3);
}
void setFormerHandler() {
  struct sigaction action {};
  action.sa_sigaction = sayAndExit;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &action, nullptr);
}
void refuseThreads() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_NPROC, &none);
  if (getuid() == 0) (void)!setuid(65534);  // the limit does not hold for root
}

// Handlers of the hook.
void sayReport(const marbleway::platform::Failure& failure) {
  say("report: " + failure.description + "\n" + failure.callStack + "\nend\n");
}
void sayAndBlock(const marbleway::platform::Failure& failure) {
  sayReport(failure);
  for (;;) pause();
}
void sayAndThrow(const marbleway::platform::Failure& failure) {
  sayReport(failure);
  throwError();
}
void sayAndCrash(const marbleway::platform::Failure& failure) {
  sayReport(failure);
  writeToBadAddress();
}
void sayAndTerminate(const marbleway::platform::Failure& failure) noexcept {
  sayReport(failure);
  throwError();
}

struct Case {
  std::string_view name;
  void (*fail)();
  void (*before)() = [] {};
  void (*handler)(const marbleway::platform::Failure&) = sayReport;
};

const Case kCases[] = {
    {"throw", throwError},
    {"throw a number", throwNumber},
    {"throw in a thread", throwInThread},
    {"throw in four threads", throwInFourThreads},
    {"what throws", throwLiar},
    {"terminate", std::terminate},
    {"write", writeToBadAddress},
    {"jump", jumpToBadAddress},
    {"divide", divideByZero},
    {"abort", std::abort},
    {"raise SIGBUS", [] { std::raise(SIGBUS); }},
    {"overflow", [] { useUpStack(0); }},
    {"former terminate", throwError, [] { std::set_terminate(sayAndAbort); }},
    {"former handler", writeToBadAddress, setFormerHandler},
    {"ignored", [] { std::raise(SIGABRT); }, [] { std::signal(SIGABRT, SIG_IGN); }},
    {"fork", [] { _exit(statusOfForkedChild(writeToBadAddress)); }},
    {"fork, throw", [] { _exit(statusOfForkedChild([]() noexcept { throwError(); })); }},
    {"handler blocks", throwError, [] {}, sayAndBlock},
    {"handler throws", writeToBadAddress, [] {}, sayAndThrow},
    {"handler crashes", std::abort, [] {}, sayAndCrash},
    {"handler terminates", writeToBadAddress, [] {}, sayAndTerminate},
    {"no thread, throw", throwError, refuseThreads},
    {"no thread, write", writeToBadAddress, refuseThreads},
    {"no thread, handler terminates", throwError, refuseThreads, sayAndTerminate},
};

}  // namespace

int main(int /*count*/, char** arguments) {
  const auto* chosen = std::ranges::find(kCases, std::string_view(arguments[1]), &Case::name);
  if (chosen == std::end(kCases)) return 2;
  chosen->before();
  const auto hook = marbleway::platform::makeCrashHook();
  hook->install(chosen->handler);
  hook->install([](const marbleway::platform::Failure&) { say("second handler\n"); });
  chosen->fail();
  return 0;
}
