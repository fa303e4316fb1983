#include <linux/magic.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/measure.h"
#include "bench/setting.h"

namespace {

namespace fs = std::filesystem;

bool isInMemory(const fs::path& directory) {
  struct statfs facts {};
  if (statfs(directory.c_str(), &facts) != 0) throw std::runtime_error("no " + directory.string());
  return facts.f_type == TMPFS_MAGIC;
}

struct Part {
  std::string_view name;
  void (*measure)(const marbleway::bench::Places&);
};

constexpr Part kParts[] = {{"recording", marbleway::bench::measureRecording},
                           {"refusals", marbleway::bench::measureRefusals},
                           {"batches", marbleway::bench::measureBatches},
                           {"start-up", marbleway::bench::measureStartUp},
                           {"footprint", marbleway::bench::measureFootprint}};

struct Arguments {
  marbleway::bench::Places places;
  std::vector<Part> parts;
};

// "--disk DIR", else the temporary directory; then the names of parts, else all of them.
Arguments argumentsFrom(std::vector<std::string_view> words) {
  fs::path disk = fs::temp_directory_path();
  if (words.size() >= 2 && words[0] == "--disk") {
    disk = words[1];
    words.erase(words.begin(), words.begin() + 2);
  }
  std::vector<Part> parts;
  for (const Part& part : kParts) {
    const auto named = std::find(words.begin(), words.end(), part.name);
    if (named != words.end() || words.empty()) parts.push_back(part);
  }
  if (parts.size() < std::max<std::size_t>(words.size(), 1)) {
    throw std::runtime_error(
        "usage: marbleway_bench [--disk DIR] [recording] [refusals] [batches] [start-up] "
        "[footprint]");
  }
  if (isInMemory(disk))
    throw std::runtime_error(disk.string() +
                             " is in memory; name a directory on a disk with --disk");
  if (!isInMemory("/dev/shm")) throw std::runtime_error("/dev/shm is not a file system in memory");
  return {{.disk = fs::absolute(disk), .memory = "/dev/shm"}, std::move(parts)};
}

}  // namespace

// Prints the table of figures. Ends with 0 when everything could be measured, whatever the figures.
int main(int count, char** arguments) {
  try {
    const Arguments given = argumentsFrom({arguments + 1, arguments + count});
    marbleway::bench::printHead();
    for (const Part& part : given.parts) part.measure(given.places);
    return EXIT_SUCCESS;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "marbleway_bench: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
