#include "Marbleway/core/console.h"

#include <string>

#include "Marbleway/core/diagnostics.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/platform.h"

namespace marbleway::console {
namespace {

// A line that cannot be written is lost, and nothing else.
void write(std::string_view prefix, std::string_view text) {
  if (!isLoggingEnabled) return;
  catchAll([&] { platform::current()->console->writeLine(std::string(prefix).append(text)); });
}

}  // namespace

void warning(std::string_view text) {
  diagnostics::refused(text);
  write("Marbleway Warning: ", text);
}

void error(std::string_view text) {
  diagnostics::refused(text);
  write("Marbleway Error: ", text);
}

void message(std::string_view text) { write("Marbleway Message: ", text); }

void refusal(std::string_view reason, std::string_view action) {
  diagnostics::refused(reason);
  if (!isLoggingEnabled) return;  // a refused call costs nothing then
  write("Marbleway Warning: ", std::string(reason).append(", Could Not ").append(action));
}

}  // namespace marbleway::console
