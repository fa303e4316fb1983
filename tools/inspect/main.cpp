#include <csignal>
#include <exception>
#include <iostream>
#include <span>

#include "tools/common/text.h"
#include "tools/inspect/arguments.h"
#include "tools/inspect/commands.h"
#include "tools/inspect/read_only.h"
#include "tools/inspect/store_file.h"

namespace {

void run(const tools::Arguments& arguments) {
  if (arguments.answer("marbleway-inspect", inspect::kUsage, std::cout)) return;
  const inspect::Request request = inspect::requestFrom(arguments);
  inspect::openStoresForReadingOnly();
  inspect::runCommand(request, std::cout, std::cerr);
}

}  // namespace

/// Ends with 2 for arguments that make no sense, with 1 when there is no store, one cannot be read
/// or the output cannot be written.
int main(int count, char** arguments) {
  // When the reader of the output leaves, the program still has to remove its copies.
  std::signal(SIGPIPE, SIG_IGN);
  std::ios::sync_with_stdio(false);
  try {
    run(inspect::readArguments({arguments + 1, arguments + count}));
    return std::cout.flush() ? 0 : 1;
  } catch (const tools::UsageError& error) {
    std::cerr << "marbleway-inspect: " << error.what() << " (--help lists the options)\n";
    return 2;
  } catch (const tools::DatabaseError& error) {
    const bool wasKilled = error.code == SQLITE_READONLY_ROLLBACK;
    std::cerr << "marbleway-inspect: " << tools::printable(error.what())
              << (wasKilled ? ": its writer was killed meanwhile, try again\n" : "\n");
    return 1;
  } catch (const std::exception& error) {
    std::cerr << "marbleway-inspect: " << tools::printable(error.what()) << '\n';
    return 1;
  }
}
