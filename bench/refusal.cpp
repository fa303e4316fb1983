#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "Marbleway/Marbleway.h"
#include "bench/measure.h"
#include "bench/setting.h"

namespace {

constinit std::atomic<std::size_t> allocations{0};

}  // namespace

// Counts every allocation of this program. The other forms of new come here, too.
void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* block = std::malloc(size > 0 ? size : 1)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t /*size*/) noexcept { std::free(block); }

namespace marbleway::bench {
namespace {

// Keeps the times of one benchmark's repetitions, in nanoseconds.
class Repetitions : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration) nanoseconds_.push_back(run.GetAdjustedCPUTime());
    }
  }
  Spread spread() const { return spreadOf(nanoseconds_); }

 private:
  std::vector<double> nanoseconds_;
};

Spread timePerCall(void (*call)()) {
  benchmark::ClearRegisteredBenchmarks();
  benchmark::RegisterBenchmark("refused",
                               [call](benchmark::State& state) {
                                 for ([[maybe_unused]] auto unused : state) call();
                               })
      ->Repetitions(9)
      ->MinTime(0.1);
  Repetitions repetitions;
  benchmark::RunSpecifiedBenchmarks(&repetitions);
  return repetitions.spread();
}

std::size_t allocationsOf(void (*call)()) {
  constexpr int kCalls = 1000;
  const std::size_t before = allocations;
  for (int i = 0; i < kCalls; ++i) call();
  return allocations - before;
}

void measureCall(const std::string& name, void (*call)()) {
  const Spread time = timePerCall(call);
  const std::size_t made = allocationsOf(call);
  print({.name = "refused " + name,
         .goal = "20 ns, none made",
         .ours = number(time.median, " ns"),
         .met = metIf(time.median < 20 && made == 0),
         .note = number(time.least).append(" to ").append(number(time.most, " ns, ")) +
                 std::to_string(made) + " allocations in 1000 calls"});
}

// An application's, made once.
const Dictionary& details() {
  static const Dictionary dictionary{{"Value", 12.5}, {"currency", "EUR"}};
  return dictionary;
}

}  // namespace

void measureRefusals(const Places& places) {
  inOwnProcess([&] {
    const WorkDirectory directory(places.memory);
    startLibrary(directory.path(), NoNetwork::Handshake::unanswered);
    Marbleway::setTrackingEnabled(false);
    measureCall("trackEvent(name)", [] { Marbleway::trackEvent("Purchase"); });
    measureCall("trackEvent(name, attributes)",
                [] { Marbleway::trackEvent("Purchase", details()); });
    measureCall("setUserAttribute", [] { Marbleway::setUserAttribute("plan", "free"); });
  });
}

}  // namespace marbleway::bench
