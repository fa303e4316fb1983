// What another project builds against the library: it records an event and a handled error, with
// the recording console that ships with it, and exits with 0 when the library said what it should.
#include <Marbleway/Host.h>
#include <Marbleway/Marbleway.h>
#include <Marbleway/platform/platform.h>
#include <Marbleway/platform/testing/recording_console.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>

int main(int count, char** arguments) {
  if (count != 2) return EXIT_FAILURE;
  const auto console = std::make_shared<marbleway::platform::testing::RecordingConsole>();
  marbleway::platform::install({.console = console});
  marbleway::configure(
      {.documentsDirectory = arguments[1], .developmentURL = "http://127.0.0.1:9/v2/"});
  Marbleway::initMarbleway("token", {{"SDKEnvironment", 1}, {"PrivacyMode", false}});
  Marbleway::trackEvent("Purchase", {{"Value", 12.5}});
  try {
    throw std::runtime_error("no such file");
  } catch (const std::exception& error) {
    Marbleway::logError("Import", "failed", error);
  }
  Marbleway::stopSession();

  const auto lines = console->lines();
  const bool isStarted = std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("Starting Marbleway SDK") != std::string::npos;
  });
  const bool isStored = !std::filesystem::is_empty(arguments[1]);
  return isStarted && isStored ? EXIT_SUCCESS : EXIT_FAILURE;
}
