// A module of an application, with the library as its own affair.
#include <Marbleway/Host.h>
#include <Marbleway/Marbleway.h>

#include <chrono>

extern "C" void start(const char* directory) {
  marbleway::configure(
      {.documentsDirectory = directory, .developmentURL = "http://127.0.0.1:9/v2/"});
  Marbleway::initMarbleway("token", {{"SDKEnvironment", 1}});
}

extern "C" void end() { marbleway::shutdown(); }

extern "C" int finish() {
  Marbleway::trackEvent("once more");
  return marbleway::waitUntilIdle(std::chrono::seconds(5)) ? 0 : 1;
}
