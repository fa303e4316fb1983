#pragma once

#if __cplusplus < 202002L
#error "Marbleway needs C++20: compile with -std=c++20 or later"
#endif

#include <array>
#include <chrono>
#include <exception>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/value.h"

/// The values that operations take, and what a host configures.
namespace marbleway {

/// A place on the map, in degrees.
struct Coordinate {
  double latitude = 0;   ///< North of the equator.
  double longitude = 0;  ///< East of Greenwich.
};

/// One thing that happened inside the library, for developers. It holds names, such as an event's
/// or an attribute's, and never a value.
struct Diagnostic {
  /// What it is about.
  enum class Kind {
    handshake,  ///< A start's request ended.
    batch,      ///< An upload's request ended, or was not begun.
    store,      ///< A statement failed; without a row that an operation recorded: "row lost".
    settings,   ///< The settings could not be written.
    crash,      ///< The row of a crash was made, or not.
    refusal     ///< A call was refused, or one of its values; `outcome` is the reason.
  };
  Kind kind = Kind::handshake;  ///< What it is about.
  bool isFailure = false;       ///< Whether something was lost, refused or not answered by 200.
  /// "accepted", "rejected" (a status other than 200), "no response", "not begun", "row lost",
  /// "statement failed", "not written", "recorded", "not recorded", or the reason of a refusal.
  std::string outcome{};
  std::string error{};    ///< Why, in the words of the network, the store or the file system.
  long httpStatus = 0;    ///< The response's; 0 without one.
  std::string url{};      ///< The request's, without a user's name and password.
  std::size_t rows = 0;   ///< In the batch.
  std::size_t bytes = 0;  ///< In the request's body.
  std::chrono::milliseconds duration{0};         ///< From the request to its end.
  std::string operation{};                       ///< Of the host's call, such as "linkUser".
  std::string key{};                             ///< What it names: an attribute, an event, a type.
  std::chrono::system_clock::time_point time{};  ///< When it happened.
};

/// "handshake", "batch", "store", "settings", "crash" or "refusal".
MARBLEWAY_EXPORT const char* nameOf(Diagnostic::Kind kind) noexcept;

/// One line, such as a log takes: what `MARBLEWAY_DIAGNOSTICS=1` in the environment has printed to
/// standard error.
MARBLEWAY_EXPORT std::string lineOf(const Diagnostic& diagnostic);

/// What a host configures: its directory, its servers, its name and version.
struct Configuration {
  /// The directory of both stores and of the settings; created with mode 0700 when missing. A
  /// relative path is resolved against the working directory of the call. Empty: $XDG_DATA_HOME or
  /// ~/.local/share, then "marbleway"/bundleIdentifier.
  std::filesystem::path documentsDirectory{};
  /// The server of the option "SDKEnvironment" 1.
  std::string developmentURL = "http://127.0.0.1:8080/v2/";
  /// The server of the option "SDKEnvironment" 2.
  std::string testURL = "https://test.marbleway.invalid/v2/";
  /// The server of any other "SDKEnvironment", and of a missing one.
  std::string productionURL = "https://collect.marbleway.invalid/v2/";
  std::string bundleIdentifier{};        ///< Empty: the executable's file name.
  std::string appVersion{};              ///< Empty: "1.0".
  std::array<Coordinate, 3> sites = {};  ///< Centres A, B and C of the fixed regions.
  /// Begins an upload as soon as the server has accepted the start, so that even a short launch
  /// sends what the one before recorded, its crash included. Its 200 deletes rows that are
  /// recorded while it is in flight: call `waitUntilIdle` after the start if these must arrive.
  bool uploadOnStart = false;
  /// Receives what happens, for developers; empty: nothing is gathered. Called on the main loop,
  /// one call at a time, in order, also for what other threads do; it should return soon. What it
  /// throws, and diagnostics of what it calls itself, are dropped.
  std::function<void(const Diagnostic&)> diagnostics{};
};

/// Sets the host's configuration. Call it before `initMarbleway`. Thread: any.
///
/// Throws std::invalid_argument, which names the member, for a URL that is not http or https with a
/// host and a path ending in "/v2/", and for a relative directory without a working directory.
MARBLEWAY_EXPORT void configure(Configuration configuration);

/// Waits until no request is in flight, every answer has been applied, and everything posted to the
/// main loop before then has run, or until `atMost` has passed. True when idle.
///
/// A short-lived process calls it before it ends. The main loop does not run while its own thread
/// waits here: a host that pumps the loop pumps, then asks with a time of 0. Thread: any.
MARBLEWAY_EXPORT bool waitUntilIdle(std::chrono::milliseconds atMost) noexcept;

/// Begins an upload if its conditions hold (see `Marbleway::stopSession`); the session goes on.
/// Reads the stores on the calling thread and does not wait for the server. Thread: any.
MARBLEWAY_EXPORT void uploadNow() noexcept;

/// What `status` counts.
enum class Count { nothing, rows };

/// The rows of one table that are pending.
struct PendingRows {
  std::string table{};    ///< Its name.
  std::size_t rows = 0;   ///< How many.
  std::size_t bytes = 0;  ///< In their texts.
};

/// The state of the library, as an application may want to show it.
struct Status {
  bool isStarted = false;                 ///< `initMarbleway` has been called.
  bool isRefused = false;                 ///< The server has refused the project.
  bool isConnected = false;               ///< The latest handshake was answered.
  bool isPrivate = false;                 ///< Privacy mode is on.
  bool isTracking = false;                ///< Tracking is on.
  bool isUploading = false;               ///< Uploading is on.
  std::optional<std::string> session{};   ///< The valid session's identifier.
  std::optional<Diagnostic> handshake{};  ///< The one that ended last since the start.
  std::optional<Diagnostic> batch{};      ///< The one that ended last since the start.
  std::vector<PendingRows> pending{};     ///< The tables with rows, if they were counted.
};

/// The state at this moment. With `Count::rows` it reads every pending row, on the calling thread;
/// a store that is held is waited for, two seconds at most. Without memory it is as before the
/// start. Thread: any.
MARBLEWAY_EXPORT Status status(Count count = Count::nothing) noexcept;

/// Ends what the library does in this process: stops and joins its threads, ends its timers and its
/// requests in flight, and gives signal handlers back. Rows that were not sent stay in the stores.
/// Afterwards the library is as before its first start; `initMarbleway` starts it again.
///
/// For plugins that are unloaded and for leak checkers. Call it on a thread of the host's, while no
/// other thread is in an operation. What a host's own main loop and HTTP client still hold has no
/// effect any more.
MARBLEWAY_EXPORT void shutdown() noexcept;

/// Makes the report for `Marbleway::logError` from an exception of any type: its type, its `what()`
/// if it is a std::exception, and the call stack of this call. Empty for a null `exception`.
///
///     catch (...) { Marbleway::logError("Import", "failed", reportOf(std::current_exception())); }
MARBLEWAY_EXPORT ErrorReport reportOf(const std::exception_ptr& exception);

/// Gives the calling thread an alternate stack for signals, if it has none, so that an overflow of
/// its stack can be recorded. With performance monitoring on, each thread gets one with its first
/// operation; call this on threads that call none. Thread: any.
MARBLEWAY_EXPORT void watchThread() noexcept;

}  // namespace marbleway
