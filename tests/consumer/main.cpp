// What another project builds against the library: it records an event, with the recording console
// that ships with it, and exits with 0 when there is a line and a store. Its own folder, which it
// includes from, has files with the names of the library's.
#include <Marbleway/Host.h>
#include <Marbleway/Marbleway.h>
#include <Marbleway/platform/platform.h>
#include <Marbleway/platform/testing/recording_console.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "core/state.h"
#include "json.h"
#include "platform/value.h"

int main(int count, char** arguments) {
  if (count != 2) return EXIT_FAILURE;
  const auto console = std::make_shared<marbleway::platform::testing::RecordingConsole>();
  marbleway::platform::install({.console = console});
  marbleway::configure(
      {.documentsDirectory = arguments[1], .developmentURL = "http://127.0.0.1:9/v2/"});
  Marbleway::initMarbleway("token", {{"SDKEnvironment", 1}});
  Marbleway::trackEvent("Purchase", {{"Value", 12.5}});
  Marbleway::stopSession();
  const bool isStored = !std::filesystem::is_empty(arguments[1]);
  return !console->lines().empty() && isStored ? EXIT_SUCCESS : EXIT_FAILURE;
}
