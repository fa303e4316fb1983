#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "stress/loops.h"

namespace marbleway::stress {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct Loop {
  std::string name;
  const char* figure;  // after `count`
  const char* goal;
  int count;
  Fault (*run)(Rounds&);
};

// clang-format off
const Loop kLoops[] = {
    {"load", "rows by each of 8 threads, batches answered by 500", "0 lost, 0 tables read as empty", 12500, recordUnderLoad},
    {"kill", "times kill -9 while recording", "every row returned, 16 tables, sound", 300, tests::killRecording},
    {"first-start", "times kill -9 in the first start", "16 tables, sound", 100, tests::killFirstStart},
    {"exit", "exits with a TLS transfer in flight", "no crash, no hang, 100 ms", 150, exitInTransfer},
    {"fork", "times ten forks under three recording threads", "no crash, no hang, 100 ms, every row", 20, forkRecording},
    {"crash", "failures, in every of 41 ways by turns", "one row for a crash, sound, its own end", 820, crashInEveryWay},
    {"two-processes", "rows by each of two processes", "1 % lost at most", 20000, recordInTwoProcesses},
    {"settings", "times kill -9 of one of two writers", "no torn file, no key lost", 100, writeSettings},
    {"full", "full 256 kB file systems, then space again", "old rows remain, all resumes", 20, fillDisk},
    {"random", "random operations against a model", "counts equal, every document valid", 100000, operateAtRandom},
    {"soak", "seconds of recording, uploading, starts and stops", "< 100 kB a minute, descriptors and threads flat", 600, soak},
};
// clang-format on

struct Choice {
  fs::path directory = "/dev/shm";
  int share = 1;  // one in so many rounds
  int soak = 600;
  unsigned seed = std::random_device()();
  std::vector<std::string> names;
};

Choice choiceOf(std::vector<std::string> words) {
  Choice choice;
  for (auto word = words.begin(); word != words.end(); ++word) {
    const auto value = [&] {
      if (word + 1 == words.end()) throw std::runtime_error(*word + " needs a value");
      return *++word;
    };
    if (*word == "--short")
      choice.share = 20, choice.soak = 75;
    else if (*word == "--soak")
      choice.soak = std::stoi(value());
    else if (*word == "--seed")
      choice.seed = static_cast<unsigned>(std::stoul(value()));
    else if (*word == "--directory")
      choice.directory = fs::absolute(value());
    else if (std::ranges::count(kLoops, *word, &Loop::name) == 0)
      throw std::runtime_error("there is no loop " + *word);
    else
      choice.names.push_back(*word);
  }
  return choice;
}

// True when the loop's goal is met.
bool run(const Loop& loop, const Choice& choice) {
  const int count = loop.name == "soak" ? choice.soak : std::max(1, loop.count / choice.share);
  Rounds rounds{.directory = choice.directory / ("marbleway-stress-" + std::to_string(getpid())),
                .count = count,
                .random = std::mt19937(choice.seed)};
  fs::create_directories(rounds.directory);
  const auto start = std::chrono::steady_clock::now();
  const std::string result = tests::faultOfChild(
      [&] {
        const Fault fault = loop.run(rounds);
        return (fault.empty() ? "met" : "MISSED: " + fault) + rounds.figures;
      },
      2h);
  fs::remove_all(rounds.directory);
  const auto took = std::chrono::steady_clock::now() - start;
  std::printf("%6d %-52s %-48s %s (%lld s)\n", count, loop.figure, loop.goal, result.c_str(),
              static_cast<long long>(took / 1s));
  (void)std::fflush(stdout);
  return result.starts_with("met");
}

}  // namespace
}  // namespace marbleway::stress

// Prints a line for each loop. Ends with 0 when every goal is met.
int main(int count, char** arguments) {
  using namespace marbleway::stress;
  try {
    const Choice choice = choiceOf({arguments + 1, arguments + count});
    std::printf("stores in %s, seed %u\n", choice.directory.c_str(), choice.seed);
    bool areMet = true;
    for (const Loop& loop : kLoops) {
      const bool isChosen = choice.names.empty() || std::ranges::count(choice.names, loop.name) > 0;
      areMet = (!isChosen || run(loop, choice)) && areMet;
    }
    return areMet ? 0 : 1;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "marbleway_stress: %s\n", failure.what());
    return 1;
  }
}
