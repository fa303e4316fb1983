#include <benchmark/benchmark.h>

#include "Marbleway/Marbleway.h"
#include "bench/measure.h"
#include "bench/setting.h"

namespace marbleway::bench {
namespace {

void event() { Marbleway::trackEvent("Purchase"); }
void eventWithAttributes() {
  static const Dictionary attributes{{"Value", 12.5}, {"currency", "EUR"}};
  Marbleway::trackEvent("Purchase", attributes);
}
void userAttribute() { Marbleway::setUserAttribute("plan", "free"); }

// Times `call` and counts the allocations of one call.
template <void (*call)()>
void refused(benchmark::State& state) {
  call();  // initializes constants
  const std::size_t before = allocations();
  call();
  state.counters["allocations"] = static_cast<double>(allocations() - before);
  for ([[maybe_unused]] auto unused : state) call();
}

// Prints a line of the table for each benchmark. Processor time, because the machine may be busy.
class Lines : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<double> times;
    double allocated = 0;
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      times.push_back(run.GetAdjustedCPUTime());  // nanoseconds
      allocated += run.counters.at("allocations");
    }
    if (times.empty()) return;
    const Spread time = spreadOf(std::move(times));
    print({.name = "refused call, " + runs.front().run_name.function_name,
           .goal = "20 ns, none made",
           .ours = number(time.median, " ns"),
           .met = metIf(time.median < 20 && allocated == 0),
           .note = number(time.least).append(" to ").append(number(time.most, " ns; ")) +
                   number(allocated, " allocations")});
  }
};

BENCHMARK(refused<event>)->Name("trackEvent(name)")->Repetitions(9)->MinTime(0.1);
BENCHMARK(refused<eventWithAttributes>)->Name("trackEvent(name, 2)")->Repetitions(9)->MinTime(0.1);
BENCHMARK(refused<userAttribute>)->Name("setUserAttribute")->Repetitions(9)->MinTime(0.1);

}  // namespace

void measureRefusals(const Places& places) {
  inOwnProcess([&] {
    const WorkDirectory directory(places.memory);
    startLibrary(directory.path(), NoNetwork::Handshake::unanswered);
    Marbleway::setTrackingEnabled(false);
    Lines lines;
    benchmark::RunSpecifiedBenchmarks(&lines);
  });
}

}  // namespace marbleway::bench
