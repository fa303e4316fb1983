#include <cerrno>
#include <exception>
#include <iostream>
#include <span>
#include <system_error>

#include "tools/common/output.h"
#include "tools/common/text.h"
#include "tools/inspect/arguments.h"
#include "tools/inspect/commands.h"
#include "tools/inspect/read_only.h"
#include "tools/inspect/store_file.h"

namespace {

void run(const tools::Arguments& arguments, std::ostream& out) {
  if (arguments.answer("marbleway-inspect", inspect::usage(), out)) return;
  const inspect::Request request = inspect::requestFrom(arguments);
  inspect::openStoresForReadingOnly();
  inspect::runCommand(request, out, std::cerr);
}

/// The exit status. A reader of the output that has left knows that it has.
int finish(std::ostream& out, const tools::Output& output) {
  if (out.flush()) return 0;
  if (output.error() != EPIPE) {
    std::cerr << "marbleway-inspect: the output cannot be written: "
              << std::generic_category().message(output.error()) << '\n';
  }
  return 1;
}

}  // namespace

/// Ends with 2 for arguments that make no sense, with 1 when there is no store, one cannot be read
/// or the output cannot be written.
int main(int count, char** arguments) {
  inspect::ignoreBrokenPipes();
  tools::Output output;
  std::ostream out(&output);
  try {
    run(inspect::readArguments({arguments + 1, arguments + count}), out);
    return finish(out, output);
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
