// Starts the library in the directory that is its second argument, and fails in the way that the
// first one names. "start" only starts it. A third argument selects one of 48 places.

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
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/store/schema.h"

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
void overflow() { useUpStack(0); }
template <int number>
void raiseSignal() {
  std::raise(number);
}

}  // namespace failing

// The allocator, which fails at one of its calls, its lock held.
extern "C" void* __libc_malloc(std::size_t size);  // NOLINT(bugprone-reserved-identifier)
extern "C" void __libc_free(void* memory);         // NOLINT(bugprone-reserved-identifier)

namespace {

using namespace failing;

struct FailingCall {
  std::atomic<long> calls{0};
  std::atomic<long> fatal{-1};  // the number of the call that fails; -1: none

  // Holds the allocator's lock once a call is to fail; before, forks need it free.
  template <class Work>
  auto run(Work work) {
    if (++calls == fatal) pthread_mutex_lock(&lock), writeToBadAddress();
    if (fatal >= 0) pthread_mutex_lock(&lock), pthread_mutex_unlock(&lock);
    return work();
  }
  static constinit pthread_mutex_t lock;
};
constinit pthread_mutex_t FailingCall::lock = PTHREAD_MUTEX_INITIALIZER;
constinit FailingCall mallocCalls, freeCalls;

}  // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void* malloc(std::size_t size) {
  return mallocCalls.run([&] { return __libc_malloc(size); });
}
extern "C" void free(void* memory) {
  freeCalls.run([&] { __libc_free(memory); });
}
#endif

namespace {

const char* documents = nullptr;
int place = 0;  // of 48

void startLibrary() {
  marbleway::Configuration host;
  host.documentsDirectory = documents;
  host.developmentURL = "http://0.0.0.0:1/v2/";  // nobody answers
  marbleway::configure(std::move(host));
  Marbleway::initMarbleway("token", {{"LoggingEnabled", false}, {"SDKEnvironment", 1}});
  Marbleway::startSession();
}
// The calling thread has called no operation then.
void startElsewhere() { std::thread(startLibrary).join(); }

void callOperations() {
  const marbleway::Dictionary attributes{{"id", "a"}, {"Value", 2}, {"type", "b"}};
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
  Marbleway::unlinkUser();
}
template <FailingCall& call>
void failInAllocator() {
  callOperations();
  call.calls = 0;
  callOperations();
  call.fatal = call.calls * (1 + 2 * place) / (1 + 2 * 48) + 1;
  call.calls = 0;
  callOperations();
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
  const std::string path = std::string(documents) + "/" + marbleway::DBFileName;
  sqlite3_open(path.c_str(), &store);
  sqlite3_exec(store, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
  writeToBadAddress();
}
void forkMeanwhile() {
  std::atomic<bool> hasForked{false};
  const std::jthread forking([&] {
    for (;; hasForked = true) {
      const pid_t child = fork();
      if (child == 0) _exit(0);
      waitpid(child, nullptr, 0);
    }
  });
  while (!hasForked) std::this_thread::yield();
  writeToBadAddress();
}
template <void (*work)()>
void workInForkedChild() {
  const pid_t child = fork();
  if (child == 0) work();
  int status = 0;
  waitpid(child, &status, 0);
  _exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
}
void startAndFail() { startLibrary(), writeToBadAddress(); }
template <void (*fail)()>
void failOnMainLoop() {
  marbleway::platform::current()->mainLoop->post(fail);
  for (;;) pause();
}
void trackAndOverflow() { Marbleway::trackEvent("e"), overflow(); }
void watchAndOverflow() { marbleway::watchThread(), overflow(); }

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
template <void (*recover)()>
void recoverAndAbort() {
  recover(), std::abort();
}
template <void (*recover)()>
void recoverAndDivide() {
  recover(), divideByZero();
}
template <void (*recover)()>
void recoverAndExit() {
  recover(), std::exit(0);
}

// How much of a host's small stack is used, without what the kernel puts there for any handler.
std::array<unsigned char, 32768> smallStack;
std::ptrdiff_t kernelUse = 0;
void measureKernel(int /*number*/, siginfo_t* /*info*/, void* /*context*/) {
  kernelUse = smallStack.end() - static_cast<unsigned char*>(__builtin_frame_address(0));
}
void reportStackUse(int /*number*/, siginfo_t* /*info*/, void* /*context*/) {
  const auto* const unused =
      std::ranges::find_if(smallStack, [](auto byte) { return byte != 0xA5; });
  std::printf("%td\n", smallStack.end() - unused - kernelUse);
  _exit(std::fflush(stdout));
}
void failOnSmallStack() {
  const stack_t stack{.ss_sp = smallStack.data(), .ss_flags = 0, .ss_size = smallStack.size()};
  sigaltstack(&stack, nullptr);
  struct sigaction action {};
  action.sa_sigaction = measureKernel;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigaction(SIGUSR1, &action, nullptr);
  std::raise(SIGUSR1);
  smallStack.fill(0xA5);
  writeToBadAddress();
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
    for (;;) Marbleway::trackEvent("e"), pthread_testcancel();
  });
  while (!isReady) std::this_thread::yield();
  pthread_cancel(thread.native_handle());
  thread.join();
}

struct Case {
  std::string_view name;
  void (*fail)();
  void (*before)() = [] {};
  void (*start)() = startLibrary;
};

// clang-format off
const Case kCases[] = {
    {"start", [] {}},
    {"throw", throwError},
    {"throw a number", throwNumber},
    {"throw in a thread", failInThreads<throwError>},
    {"throw in twenty threads", failInThreads<throwError, 20>},
    {"what throws in a thread", failInThreads<throwLiar>},
    {"terminate", std::terminate},
    {"write", writeToBadAddress},
    {"write in twenty threads", failInThreads<writeToBadAddress, 20>},
    {"jump", jumpToBadAddress},
    {"divide", divideByZero},
    {"abort", std::abort},
    {"raise SIGBUS", raiseSignal<SIGBUS>},
    {"raise SIGILL", raiseSignal<SIGILL>},
    {"raise SIGTRAP", raiseSignal<SIGTRAP>},
    {"raise SIGSYS", raiseSignal<SIGSYS>},
    {"overflow after an operation", trackAndOverflow, [] {}, startElsewhere},
    {"overflow in a watched thread", failInThreads<watchAndOverflow>},
    {"overflow in twenty threads", failInThreads<trackAndOverflow, 20>},
    {"overflow on the main loop", failOnMainLoop<overflow>},
    {"write on the main loop", failOnMainLoop<writeToBadAddress>},
    {"in malloc", failInAllocator<mallocCalls>},
    {"in free", failInAllocator<freeCalls>},
    {"double free, one arena", freeTwice, useOneArena},
    {"double free", failInThreads<freeTwice>},
    {"corrupted heap, one arena", corruptHeap, useOneArena},
    {"corrupted heap", failInThreads<corruptHeap>},
    {"in dlopen", [] { dlopen(CRASHING_MODULE, RTLD_NOW); }},
    {"in a transaction", holdTransaction},
    {"while forking", forkMeanwhile},
    {"in a child that starts", workInForkedChild<startAndFail>},
    {"in a child", workInForkedChild<writeToBadAddress>},
    {"no thread", throwError, refuseThreads},
    {"handler exits", writeToBadAddress, setHandler<exitIfTrue>},
    {"handler gives up", writeToBadAddress, setHandler<giveUp>},
    {"handler jumps", recoverAndExit<recoverByJump>, setHandler<jumpAway>},
    {"handler repairs", recoverAndExit<recoverByRepair>, setHandler<repair>},
    {"handler jumps, then abort", recoverAndAbort<recoverByJump>, setHandler<jumpAway, SA_ONSTACK>},
    {"handler repairs, then divide", recoverAndDivide<recoverByRepair>, setHandler<repair>},
    {"ignored", [] { std::raise(SIGABRT); }, [] { std::signal(SIGABRT, SIG_IGN); }},
    {"former terminate", throwError, [] { std::set_terminate([] { _exit(3); }); }},
    {"small stack", failOnSmallStack, setHandler<reportStackUse>},
    {"cancel", cancelInOperation},
};
// clang-format on

}  // namespace

int main(int count, char** arguments) {
  alarm(30);
  const auto* const chosen = std::ranges::find(kCases, std::string_view(arguments[1]), &Case::name);
  if (count < 3 || chosen == std::end(kCases)) return 2;
  documents = arguments[2];
  if (count > 3) place = std::atoi(arguments[3]);
  chosen->before();
  chosen->start();
  chosen->fail();
}
