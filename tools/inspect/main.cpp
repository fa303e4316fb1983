#include <csignal>
#include <exception>
#include <iostream>
#include <span>

#include "Marbleway/core/state.h"
#include "tools/inspect/arguments.h"
#include "tools/inspect/commands.h"
#include "tools/inspect/read_only.h"

namespace {

void run(const inspect::Request& request) {
  switch (request.command) {
    case inspect::Command::help:
      std::cout << inspect::kUsage;
      break;
    case inspect::Command::version:
      std::cout << "marbleway-inspect " << marbleway::SDKVersion << '\n';
      break;
    default:
      inspect::openStoresForReadingOnly();
      inspect::carryOut(request, std::cout, std::cerr);
  }
}

}  // namespace

/// Ends with 2 for arguments that make no sense, with 1 when there is no store, one cannot be read
/// or the output cannot be written.
int main(int count, char** arguments) {
  // A reader that leaves ends the output, not the program, which may have a copy to remove.
  std::signal(SIGPIPE, SIG_IGN);
  std::ios::sync_with_stdio(false);
  try {
    run(inspect::readArguments({arguments + 1, arguments + count}));
    return std::cout.flush() ? 0 : 1;
  } catch (const inspect::UsageError& error) {
    std::cerr << "marbleway-inspect: " << error.what() << " (--help tells the options)\n";
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "marbleway-inspect: " << inspect::printable(error.what()) << '\n';
    return 1;
  }
}
