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

/// An event inside the library, for developers. It holds names, such as those of events and
/// attributes, and never a value.
struct Diagnostic {
  /// What it is about.
  enum class Kind {
    handshake,  ///< A start's request ended.
    batch,      ///< An upload's request ended, or was not begun.
    store,      ///< A statement failed. "row lost": it was the row of an operation.
    settings,   ///< The settings could not be written.
    crash,      ///< The row of a crash was written, or not.
    refusal     ///< A call was refused, or one of its values; `outcome` is the reason.
  };
  Kind kind = Kind::handshake;  ///< What it is about.
  bool isFailure = false;       ///< Whether something was lost, refused or not answered by 200.
  /// "accepted", "rejected" (a status other than 200), "no response", "not begun", "row lost",
  /// "statement failed", "not written", "recorded", "not recorded", or the reason of a refusal.
  std::string outcome{};
  std::string error{};    ///< The reason, as the network, the store or the file system states it.
  long httpStatus = 0;    ///< The response's; 0 without one.
  std::string url{};      ///< The request's, without a user's name and password.
  std::size_t rows = 0;   ///< In the batch.
  std::size_t bytes = 0;  ///< In the request's body.
  std::chrono::milliseconds duration{0};         ///< From the request to its end.
  std::string operation{};                       ///< That the host called, such as "linkUser".
  std::string key{};                             ///< Its attribute, event, screen, error or type.
  std::chrono::system_clock::time_point time{};  ///< When it happened.
};

/// "handshake", "batch", "store", "settings", "crash" or "refusal".
MARBLEWAY_EXPORT const char* nameOf(Diagnostic::Kind kind) noexcept;

/// The diagnostic as one line of text. With `MARBLEWAY_DIAGNOSTICS=1` in the environment the
/// library prints this line to standard error.
MARBLEWAY_EXPORT std::string lineOf(const Diagnostic& diagnostic);

/// What a host configures: its directory, its servers, its name and version.
struct Configuration {
  /// The directory of all files of the library; created with mode 0700 when missing. A
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
  /// Begins an upload as soon as the server has answered the start with 200, so that even a short
  /// launch sends the rows of the one before, its crash included. The upload's 200 deletes rows
  /// that are recorded while it is in flight: call `waitUntilIdle` after the start if these must
  /// arrive.
  bool uploadOnStart = false;
  /// Receives diagnostics, for developers. Called on the main loop, one call at a time, in order,
  /// also for other threads' events; it should return soon. What it throws, and the diagnostics of
  /// its own calls, are dropped.
  std::function<void(const Diagnostic&)> diagnostics{};
};

/// Sets the host's configuration. Call it before `initMarbleway`. Thread: any.
///
/// Throws std::invalid_argument, which names the member, for a URL that is not http or https with a
/// host and a path ending in "/v2/", and for a relative directory without a working directory.
MARBLEWAY_EXPORT void configure(Configuration configuration);

/// Waits until no request is in flight, every answer has been applied and every diagnostic has been
/// delivered, or until `atMost` has passed. True when idle.
///
/// Call it before a short-lived process ends. The main loop does not run while its own thread waits
/// here: a host that pumps the loop pumps it, then calls this with a time of 0. Thread: any.
MARBLEWAY_EXPORT bool waitUntilIdle(std::chrono::milliseconds atMost) noexcept;

/// Begins an upload if its conditions hold (see `Marbleway::stopSession`); the session goes on.
/// Reads the stores on the calling thread and does not wait for the server. Thread: any.
MARBLEWAY_EXPORT void uploadNow() noexcept;

/// Whether `status` counts the pending rows.
enum class Count { nothing, rows };

/// The rows of one table that are pending.
struct PendingRows {
  std::string table{};    ///< The table's name.
  std::size_t rows = 0;   ///< The number of rows.
  std::size_t bytes = 0;  ///< The size of their texts.
};

/// The state of the library, for an application that shows it.
struct Status {
  bool isStarted = false;                 ///< `initMarbleway` has been called.
  bool isRefused = false;                 ///< The server has refused the project.
  bool isConnected = false;               ///< The latest handshake was answered.
  bool isPrivate = false;                 ///< Privacy mode is on.
  bool isTracking = false;                ///< Tracking is on.
  bool isUploading = false;               ///< Uploading is on.
  std::optional<std::string> session{};   ///< The valid session's identifier.
  std::optional<Diagnostic> handshake{};  ///< The latest that has ended since the first start.
  std::optional<Diagnostic> batch{};      ///< The latest that has ended since the first start.
  std::vector<PendingRows> pending{};     ///< The tables with rows, if they were counted.
};

/// The present state. With `Count::rows` it reads every pending row, on the calling thread, and
/// waits for stores that others hold, two seconds at most. Without memory the result is that from
/// before the start. Thread: any.
MARBLEWAY_EXPORT Status status(Count count = Count::nothing) noexcept;

/// Ends what the library does in this process: stops and joins its threads, ends its timers and its
/// requests in flight, and gives signal handlers back. Rows that were not sent stay in the stores.
/// Afterwards the library is as before its first start; `initMarbleway` starts it again.
///
/// For plugins that are unloaded and for leak checkers. Call it on a thread of the host, while no
/// other thread is in an operation. Tasks and answers that the host's own main loop and HTTP client
/// deliver later have no effect.
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
