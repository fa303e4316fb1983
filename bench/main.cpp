#include <linux/magic.h>
#include <sys/vfs.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "bench/measure.h"
#include "bench/setting.h"

namespace {

namespace fs = std::filesystem;

bool isInMemory(const fs::path& directory) {
  struct statfs facts {};
  if (statfs(directory.c_str(), &facts) != 0) throw std::runtime_error("no " + directory.string());
  return facts.f_type == TMPFS_MAGIC;
}

// "--disk DIR", else the temporary directory.
marbleway::bench::Places placesFrom(int count, char** arguments) {
  fs::path disk = fs::temp_directory_path();
  if (count == 3 && std::string_view(arguments[1]) == "--disk") {
    disk = arguments[2];
  } else if (count != 1) {
    throw std::runtime_error("usage: marbleway_bench [--disk DIR]");
  }
  if (isInMemory(disk)) throw std::runtime_error(disk.string() + " is no disk; name one by --disk");
  if (!isInMemory("/dev/shm")) throw std::runtime_error("/dev/shm is no file system in memory");
  return {.disk = fs::absolute(disk), .memory = "/dev/shm"};
}

}  // namespace

// Prints the table of figures. Ends with 0 when everything could be measured, whatever the figures.
int main(int count, char** arguments) {
  try {
    const auto places = placesFrom(count, arguments);
    marbleway::bench::printHead();
    marbleway::bench::measureRecording(places);
    marbleway::bench::measureRefusals(places);
    marbleway::bench::measureBatches(places);
    marbleway::bench::measureStartUp(places);
    marbleway::bench::measureFootprint(places);
    return EXIT_SUCCESS;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "marbleway_bench: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
