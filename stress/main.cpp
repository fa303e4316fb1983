#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include "stress/loops.h"
#include "tests/support/fixture.h"
#include "tests/support/process_ends.h"

namespace marbleway::stress {
namespace {

namespace fs = std::filesystem;

// clang-format off
constexpr Loop kLoops[] = {
    {"load", "8 threads x 12,500 rows, batches answered by 500", "0 lost, 0 tables read as empty", recordUnderLoad},
    {"kill", "kill -9 while recording x 300", "every row returned, 16 tables, sound", killRecording},
    {"first-start", "kill -9 in the first start x 100", "16 tables, sound", killFirstStart},
    {"exit", "exit with a TLS transfer in flight x 150", "no crash, no hang, 100 ms", exitInTLS},
    {"fork", "fork under three recording threads x 200", "no crash, no hang, 100 ms, every row", forkRecording},
    {"crash", "16 ways of crashing x 20", "one row each, sound, its own end", crashInEveryWay},
    {"two-processes", "two processes, 200 rows each, 20 ms apart", "0 lost", recordInTwoProcesses},
    {"saturated", "two processes, saturated", "1 % lost at most", saturateInTwoProcesses},
    {"settings", "two processes writing settings x 500 each", "no torn file, no key lost", writeDefaultsInTwoProcesses},
    {"settings-kill", "kill -9 while writing settings x 100", "no torn file, no key lost", killDefaults},
    {"settings-read", "settings that cannot be read for a time x 30", "no new identity", failReadingDefaults},
    {"full", "a full 256 kB file system, then space again", "old rows kept, all resumes", fillDisk},
    {"random", "100,000 random operations against a model", "counts equal, every document valid", operateAtRandom},
    {"soak", "soak: recording, uploading, session starts and stops", "< 100 kB a minute, descriptors and threads flat", soak},
};
// clang-format on

struct Choice {
  Effort effort;
  std::vector<std::string_view> names;
};

Choice choiceOf(int count, char** arguments) {
  Choice choice;
  choice.effort.directory = "/dev/shm";
  choice.effort.seed = std::random_device()();
  for (int i = 1; i < count; ++i) {
    const std::string_view word = arguments[i];
    const bool hasValue = word == "--soak" || word == "--seed" || word == "--directory";
    if (hasValue && i + 1 == count) throw std::runtime_error(std::string(word) + " what?");
    if (word == "--short") {
      choice.effort.share = 0.05;
      choice.effort.soak = std::chrono::seconds(75);
    } else if (word == "--soak") {
      choice.effort.soak = std::chrono::seconds(std::stoi(arguments[++i]));
    } else if (word == "--seed") {
      choice.effort.seed = static_cast<std::uint32_t>(std::stoul(arguments[++i]));
    } else if (word == "--directory") {
      choice.effort.directory = fs::absolute(arguments[++i]);
    } else if (std::ranges::find(kLoops, word, &Loop::name) != std::end(kLoops)) {
      choice.names.push_back(word);
    } else {
      throw std::runtime_error("there is no loop " + std::string(word));
    }
  }
  return choice;
}

void print(const char* figure, const char* goal, const char* met, const std::string& result) {
  std::printf("%-54s %-48s %-7s %s\n", figure, goal, met, result.c_str());
  (void)std::fflush(stdout);
}

// True when the loop's goal is met.
bool run(const Loop& loop, Effort effort) {
  const auto start = std::chrono::steady_clock::now();
  effort.directory /= "marbleway-stress-" + std::to_string(getpid());
  fs::create_directories(effort.directory);
  Outcome outcome;
  outcome.result = tests::faultOfChild(
      [&] {
        outcome = loop.run(effort);
        return (outcome.isMet ? "+" : "-") + outcome.result;
      },
      std::chrono::hours(2));
  fs::remove_all(effort.directory);
  const bool isMet = outcome.result.starts_with('+');
  if (isMet || outcome.result.starts_with('-')) outcome.result.erase(0, 1);
  const auto took = std::chrono::steady_clock::now() - start;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(took).count();
  print(loop.figure, loop.goal, isMet ? "met" : "MISSED",
        outcome.result + " (" + std::to_string(seconds) + " s)");
  return isMet;
}

bool runAll(const Choice& choice) {
  std::printf("%u processors, stores in %s, seed %u%s\n", std::thread::hardware_concurrency(),
              choice.effort.directory.c_str(), choice.effort.seed,
              choice.effort.share < 1 ? ", a twentieth of all rounds" : "");
  print("figure", "goal", "", "result");
  bool areMet = true;
  for (const Loop& loop : kLoops) {
    const bool isChosen = choice.names.empty() || std::ranges::count(choice.names, loop.name) > 0;
    if (isChosen && !run(loop, choice.effort)) areMet = false;
  }
  return areMet;
}

}  // namespace
}  // namespace marbleway::stress

// Prints a line for each loop. Ends with 0 when every goal is met.
int main(int count, char** arguments) {
  try {
    const bool areMet = marbleway::stress::runAll(marbleway::stress::choiceOf(count, arguments));
    return areMet ? EXIT_SUCCESS : EXIT_FAILURE;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "marbleway_stress: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
