#include "tests/support/crashes.h"

#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/store/schema.h"
#include "tests/support/library.h"

// Functions that a call stack can name.
namespace failing {

void throwNumber() { throw 7; }
void throwError() { throw std::runtime_error("disk on fire"); }

struct Liar : std::exception {
  const char* what() const noexcept override { return throwNumber(), ""; }
};
void throwLiar() { throw Liar(); }

// Real faults, none of which a compiler foresees.
void* volatile badAddress = reinterpret_cast<void*>(16);  // NOLINT(performance-no-int-to-ptr)
volatile int one = 1, zero = 0;

void writeToBadAddress() { *static_cast<volatile int*>(badAddress) = 1; }
void divideByZero() { one = std::div(one, zero).quot; }
void jumpToBadAddress() { reinterpret_cast<void (*)()>(badAddress)(); }
int useUpStack(int depth) {
  volatile char room[1024] = {};  // a larger one could leave a guard page untouched
  room[0] = static_cast<char>(depth);
  return depth < 0 ? 0 : useUpStack(depth + 1) + room[0];
}
void overflow() { useUpStack(0); }

}  // namespace failing

// The allocator, which fails at one of its calls, its lock held.
extern "C" void* __libc_malloc(std::size_t size);  // NOLINT(bugprone-reserved-identifier)
extern "C" void __libc_free(void* memory);         // NOLINT(bugprone-reserved-identifier)

namespace {

using namespace failing;

struct FailingCall {
  std::atomic<long> calls{0};
  std::atomic<long> fatal{-1};  // the number of the call that fails; -1: none

  // Takes the allocator's lock only once a call is to fail: until then forks need it free.
  void count() {
    if (++calls == fatal) pthread_mutex_lock(&lock), writeToBadAddress();
    if (fatal >= 0) pthread_mutex_lock(&lock), pthread_mutex_unlock(&lock);
  }
  static constinit pthread_mutex_t lock;
};
constinit pthread_mutex_t FailingCall::lock = PTHREAD_MUTEX_INITIALIZER;
constinit FailingCall mallocCalls, freeCalls;

}  // namespace

extern "C" void* malloc(std::size_t size) { return mallocCalls.count(), __libc_malloc(size); }
extern "C" void free(void* memory) { freeCalls.count(), __libc_free(memory); }

namespace marbleway::tests {
namespace {

const char* documents = nullptr;
int place = 0;  // of 48

template <void (*... works)()>
void inTurn() {
  (works(), ...);
}
template <void (*fail)(), std::ptrdiff_t count = 1>
void inThreads() {
  static std::barrier start(count);
  std::vector<std::jthread> threads;
  while (std::ssize(threads) < count) threads.emplace_back([] { start.arrive_and_wait(), fail(); });
}
template <int number>
void raiseSignal() {
  std::raise(number);
}

// None ends the session: a crash without one has no row.
void callOperations() {
  const Dictionary attributes{{"id", "a"}, {"Value", 2}, {"type", "b"}};
  Marbleway::linkUser("someone", "id");
  Marbleway::setUserAttribute("a", "b");
  Marbleway::incrementUserAttribute("a", 1);
  Marbleway::linkCompany("Acme");
  Marbleway::setCompanyAttribute("a", "b");
  Marbleway::trackEvent("e", attributes);
  Marbleway::trackScreenView("s", attributes);
  Marbleway::trackAdImpression(attributes);
  Marbleway::trackAdInteraction(attributes, "tap");
  Marbleway::trackAdConversion(attributes, attributes);
  Marbleway::trackDeepLink("app://open?mrbw_dlid=1");
  Marbleway::logError("e", "m", std::nullopt);
  Marbleway::unlinkCompany();
}
template <FailingCall& call>
void inAllocator() {
  callOperations();
  call.calls = 0;
  callOperations();
  call.fatal = call.calls * (1 + 2 * place) / (1 + 2 * 48) + 1;
  call.calls = 0;
  for (;;) callOperations();  // once: other threads may have made more calls than now
}

void useOneArena() { mallopt(M_ARENA_MAX, 1); }
void* volatile chunk = nullptr;
void freeTwice() {
  mallopt(M_MXFAST, 0);  // the second free is found under the arena's lock
  chunk = std::malloc(5000);
  std::free(chunk);
  std::free(chunk);
}
void corruptHeap() {
  chunk = std::malloc(5000);
  std::memset(chunk, 0xFF, 5000 + 64);  // with what follows, the arena's top
  for (;;) chunk = std::malloc(100'000);
}

void holdTransaction() {
  sqlite3* store = nullptr;
  sqlite3_open(std::string(documents).append("/").append(DBFileName).c_str(), &store);
  sqlite3_exec(store, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
}
void forkForEver() {
  static std::atomic<bool> hasForked{false};
  std::thread([] {
    for (;; hasForked = true) {
      const pid_t child = fork();
      if (child == 0) _exit(0);
      waitpid(child, nullptr, 0);
    }
  }).detach();
  while (!hasForked) std::this_thread::yield();
}
template <void (*work)()>
void inForkedChild() {
  const pid_t child = fork();
  if (child == 0) work();
  int status = 0;
  waitpid(child, &status, 0);
  _exit(WTERMSIG(status));
}
template <void (*fail)()>
void onMainLoop() {
  platform::current()->mainLoop->post(fail);
  for (;;) pause();
}
void track() { Marbleway::trackEvent("e"); }
void openModule() { dlopen(CRASHING_MODULE, RTLD_NOW); }

// Handlers that stand before the library starts.
sigjmp_buf recovery;
volatile int recovered = 0;
void* page = nullptr;
using Handler = void (*)(int, siginfo_t*, void*);
template <Handler handler, int flags = 0>
void setHandler() {
  struct sigaction action {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | flags;
  for (const int number : {SIGSEGV, SIGBUS}) sigaction(number, &action, nullptr);
}
void exitIfTrue(int number, siginfo_t* info, void* /*context*/) {
  volatile char room[100'000] = {};  // more than an alternate stack has
  _exit(room[0] == 0 && number == SIGSEGV && info->si_addr == badAddress ? 3 : 4);
}
void jumpAway(int /*number*/, siginfo_t* /*info*/, void* /*context*/) { siglongjmp(recovery, 1); }
void repair(int /*number*/, siginfo_t* /*info*/, void* /*context*/) {
  recovered = recovered + 1;
  mprotect(page, 1, PROT_READ | PROT_WRITE);
}
void giveUp(int number, siginfo_t* /*info*/, void* /*context*/) { std::signal(number, SIG_DFL); }
void recoverByJump() {
  for (int i = 0; i < 3; ++i) {
    if (sigsetjmp(recovery, 1) == 0) writeToBadAddress();
  }
}
void recoverByRepair() {
  page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  for (int i = 0; i < 3; ++i) {
    mprotect(page, 1, PROT_NONE);
    *static_cast<volatile int*>(page) = 1;
  }
  if (recovered != 3) _exit(4);
}

// A host's small stack, of which 4 kB may be used, and what the kernel puts there for any handler.
std::array<unsigned char, 32768> smallStack;
void measureUse(int /*number*/, siginfo_t* /*info*/, void* /*context*/) {
  const auto* const own = static_cast<const unsigned char*>(__builtin_frame_address(0));
  const auto* const unused =
      std::ranges::find_if(smallStack, [](auto byte) { return byte != 0xA5; });
  _exit(own - unused < 4096 ? 3 : 4);
}
void useSmallStack() {
  const stack_t stack{.ss_sp = smallStack.data(), .ss_flags = 0, .ss_size = smallStack.size()};
  sigaltstack(&stack, nullptr);
  smallStack.fill(0xA5);
}

template <void (*install)()>
void restartWithAChain() {
  startHere();
  install();
  shutdown();
  startHere();
}
std::terminate_handler formerTerminate = nullptr;
void chainTerminate() {
  formerTerminate = std::set_terminate([] { formerTerminate(); });
}
struct sigaction formerAction {};
void callFormer(int number, siginfo_t* info, void* context) {
  formerAction.sa_sigaction(number, info, context);
}
void chainHandler() {
  sigaction(SIGSEGV, nullptr, &formerAction);
  setHandler<callFormer>();
}

void refuseThreads() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_NPROC, &none);
  if (getuid() == 0) (void)!setresuid(65534, 65534, 65534);  // the limit does not hold for root
}
void cancelInOperation() {
  std::atomic<bool> isReady{false};
  std::thread thread([&] {
    isReady = true;
    for (;;) track(), pthread_testcancel();
  });
  while (!isReady) std::this_thread::yield();
  pthread_cancel(thread.native_handle());
  thread.join();
}

constexpr const char *kAborted = "ended by signal 6", *kFaulted = "ended by signal 11",
                     *kDivided = "ended by signal 8";
constexpr const char *kError = "std::runtime_error: disk on fire",
                     *kAbort = "Signal 6 (SIGABRT): Aborted\n", *kFault = "Signal 11 (SIGSEGV): ",
                     *kBadWrite = "Signal 11 (SIGSEGV): Segmentation fault at address 0x10";

// clang-format off
const Crash kCrashes[] = {
    {"Start", [] {}, "", nullptr, nullptr},
    {"Throw", throwError, kAborted, kError, "failing::throwError() + "},
    {"ThrowANumber", throwNumber, kAborted, "int: not a std::exception", "failing::throwNumber() + "},
    {"ThrowInAThread", inThreads<throwError>, kAborted, kError, "failing::throwError() + "},
    {"ThrowInTwentyThreads", inThreads<throwError, 20>, kAborted, kError, "failing::throwError() + "},
    {"WhatThrowsInAThread", inThreads<throwLiar>, kAborted, "failing::Liar: what() failed", "failing::throwLiar() + "},
    {"Terminate", std::terminate, kAborted, "std::terminate: no exception", "main + "},
    {"Write", writeToBadAddress, kFaulted, kBadWrite, "failing::writeToBadAddress() + "},
    {"WriteInTwentyThreads", inThreads<writeToBadAddress, 20>, kFaulted, kBadWrite, "failing::"},
    {"Jump", jumpToBadAddress, kFaulted, kBadWrite, "0 ? 0x0000000000000010\n1 "},
    {"Divide", divideByZero, kDivided, "Signal 8 (SIGFPE): Floating point exception at address 0x", "failing::divideByZero() + "},
    {"Abort", std::abort, kAborted, kAbort, "abort + "},
    {"RaiseSIGBUS", raiseSignal<SIGBUS>, "ended by signal 7", "Signal 7 (SIGBUS): Bus error\n", "gsignal + "},
    {"RaiseSIGILL", raiseSignal<SIGILL>, "ended by signal 4", "Signal 4 (SIGILL): Illegal instruction\n", "gsignal + "},
    {"RaiseSIGTRAP", raiseSignal<SIGTRAP>, "ended by signal 5", "Signal 5 (SIGTRAP): Trace/breakpoint trap\n", "gsignal + "},
    {"RaiseSIGSYS", raiseSignal<SIGSYS>, "ended by signal 31", "Signal 31 (SIGSYS): Bad system call\n", "gsignal + "},
    {"OverflowAfterAnOperation", inTurn<track, overflow>, kFaulted, kFault, "failing::useUpStack(int) + ", [] {}, [] { std::thread(startHere).join(); }},
    {"OverflowInAWatchedThread", inThreads<inTurn<watchThread, overflow>>, kFaulted, kFault, "failing::useUpStack(int) + "},
    {"OverflowInTwentyThreads", inThreads<inTurn<track, overflow>, 20>, kFaulted, kFault, "failing::useUpStack(int) + "},
    {"OverflowOnTheMainLoop", onMainLoop<overflow>, kFaulted, kFault, "failing::useUpStack(int) + "},
    {"WriteOnTheMainLoop", onMainLoop<writeToBadAddress>, kFaulted, kFault, "failing::writeToBadAddress() + "},
    {"InMalloc", inAllocator<mallocCalls>, kFaulted, kFault, "tests + 0x"},
    {"InFree", inAllocator<freeCalls>, kFaulted, kFault, "tests + 0x"},
    {"DoubleFreeWithOneArena", freeTwice, kAborted, kAbort, "libc.so.6", useOneArena},
    {"DoubleFree", inThreads<freeTwice>, kAborted, kAbort, "libc.so.6"},
    {"CorruptedHeapWithOneArena", corruptHeap, kAborted, kAbort, "libc.so.6", useOneArena},
    {"CorruptedHeap", inThreads<corruptHeap>, kAborted, kAbort, "libc.so.6"},
    {"InDlopen", openModule, kFaulted, kFault, "module.so"},
    {"InATransaction", inTurn<holdTransaction, writeToBadAddress>, kFaulted, kFault, "tests + 0x"},
    {"WhileForking", inTurn<forkForEver, writeToBadAddress>, kFaulted, kFault, "failing::writeToBadAddress() + "},
    {"InAChildThatStarts", inForkedChild<inTurn<startHere, writeToBadAddress>>, "ended with 11", kFault, "main + "},
    {"InAChild", inForkedChild<writeToBadAddress>, "ended with 11", nullptr, nullptr},
    {"WithoutThreads", throwError, kAborted, kError, "tests + 0x", refuseThreads},
    {"HandlerExits", writeToBadAddress, "ended with 3", kFault, "tests + 0x", setHandler<exitIfTrue>},
    {"HandlerOnASmallStack", inTurn<useSmallStack, writeToBadAddress>, "ended with 3", kFault, "tests + 0x", setHandler<measureUse, SA_ONSTACK>},
    {"HandlerGivesUp", writeToBadAddress, kFaulted, kFault, "failing::writeToBadAddress() + ", setHandler<giveUp>},
    {"HandlerJumps", recoverByJump, "", nullptr, nullptr, setHandler<jumpAway>},
    {"HandlerRepairs", recoverByRepair, "", nullptr, nullptr, setHandler<repair>},
    {"HandlerJumpsThenAbort", inTurn<recoverByJump, std::abort>, kAborted, kAbort, "abort + ", setHandler<jumpAway, SA_ONSTACK>},
    {"HandlerRepairsThenDivide", inTurn<recoverByRepair, divideByZero>, kDivided, "Signal 8 (SIGFPE): ", "main + ", setHandler<repair>},
    {"FormerTerminate", throwError, "ended with 3", kError, "failing::throwError() + ", [] { std::set_terminate([] { _exit(3); }); }},
    {"TerminateChainAfterARestart", throwError, kAborted, kError, "failing::throwError() + ", [] {}, restartWithAChain<chainTerminate>},
    {"HandlerChainAfterARestart", writeToBadAddress, kFaulted, kBadWrite, "failing::writeToBadAddress() + ", [] {}, restartWithAChain<chainHandler>},
    {"Ignored", raiseSignal<SIGABRT>, "", nullptr, nullptr, [] { std::signal(SIGABRT, SIG_IGN); }},
    {"Cancel", cancelInOperation, "", nullptr, nullptr},
};
// clang-format on

}  // namespace

std::span<const Crash> crashes() { return kCrashes; }

void startHere() {
  startLibrary(documents, "http://0.0.0.0:1/v2/");  // nobody answers
  Marbleway::startSession();
}

void startAndFail(std::string_view name, const char* directory, int atPlace) {
  documents = directory, place = atPlace;
  const Crash& crash = *std::ranges::find(kCrashes, name, &Crash::name);
  crash.before();
  crash.start();
  crash.fail();
}

}  // namespace marbleway::tests
