#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Marbleway/store/store.h"
#include "bench/bare.h"
#include "bench/measure.h"
#include "bench/setting.h"

namespace {

using namespace marbleway;

// Starts the library, then records `count` events through it or as a bare program does.
void record(std::string_view side, int count) {
  const bench::WorkDirectory directory(std::filesystem::temp_directory_path());
  startLibrary(directory.path(), bench::NoNetwork::Handshake::unanswered);
  const std::string bareFile = bench::BareStores(directory.path()).file(Store::event);
  const bool isBare = side == "bare";
  for (int i = 0; i < count; ++i) isBare ? bench::addBareEvent(bareFile) : bench::trackPurchase();

  const std::string file = isBare ? bareFile : pathOf(Store::event);
  if (bareRead(file.c_str(), "SELECT * FROM mrbw_v2_events") != count) {
    throw std::runtime_error("rows are missing");
  }
}

}  // namespace

// Run by scripts/check-cost: marbleway_record (ours | bare) EVENTS
int main(int count, char** arguments) {
  try {
    if (count != 3) throw std::runtime_error("two arguments: ours or bare, and a number of events");
    record(arguments[1], std::stoi(arguments[2]));
    return EXIT_SUCCESS;
  } catch (const std::exception& failure) {
    std::cerr << "marbleway_record: " << failure.what() << "\n";
    return EXIT_FAILURE;
  }
}
