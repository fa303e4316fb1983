#pragma once

#include <array>
#include <chrono>
#include <filesystem>
#include <string>

#include "platform/export.h"

/// What operations are given, and what a host tells the library.
namespace marbleway {

/// A place on the map, in degrees.
struct Coordinate {
  double latitude = 0;   ///< North of the equator.
  double longitude = 0;  ///< East of Greenwich.
};

/// What a host tells the library about itself and about its servers.
struct Configuration {
  /// Holds both stores and the settings; made, mode 0700, when missing. A relative one counts from
  /// the working directory of the call. Empty: $XDG_DATA_HOME or ~/.local/share, then
  /// "marbleway"/bundleIdentifier.
  std::filesystem::path documentsDirectory{};
  /// The server of the option "SDKEnvironment" 1.
  std::string developmentURL = "http://127.0.0.1:8080/v2/";
  /// The server of the option "SDKEnvironment" 2.
  std::string testURL = "https://test.marbleway.invalid/v2/";
  /// The server of any other "SDKEnvironment", and where the option is left out.
  std::string productionURL = "https://collect.marbleway.invalid/v2/";
  std::string bundleIdentifier{};        ///< Empty: the executable's file name.
  std::string appVersion{};              ///< Empty: "1.0".
  std::array<Coordinate, 3> sites = {};  ///< Centres A, B and C of the fixed regions.
};

/// Takes the host's configuration. Call before `initMarbleway`. Thread: any.
///
/// Throws std::invalid_argument, naming the member, for a URL that is not http or https with a host
/// and a path ending in "/v2/".
MARBLEWAY_EXPORT void configure(Configuration configuration);

/// Waits until no request is in flight, its answer has been applied, and everything posted to the
/// main loop before then has run, or the time is over. True when idle.
///
/// For short-lived processes, before exit. Called on the main loop's own thread it cannot see the
/// loop's work done: a host that pumps by hand pumps, then asks with a time of 0. Thread: any.
MARBLEWAY_EXPORT bool waitUntilIdle(std::chrono::milliseconds atMost) noexcept;

}  // namespace marbleway
