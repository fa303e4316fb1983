#pragma once

#include <cstddef>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

/// All analytics of the application. They record how often a function is used and on how many
/// to-dos, never the text of one. Only this file uses the library. Thread: main.
namespace todo::analytics {

struct Settings {
  std::string collector;            // the server's URL, ending in "/v2/"; empty: record nothing
  std::string token;                // the project token
  std::filesystem::path directory;  // of the stores
};

/// Starts the library. `openLink` opens the link of a push message in the application.
///
/// Throws std::invalid_argument for an invalid URL of the collector.
void start(const Settings& settings, std::function<void(std::string_view)> openLink);

/// Waits until all requests have been answered, at most two seconds.
void waitForServer();

/// Ends the session and uploads its rows. Rows that cannot be uploaded in time stay in the
/// store for a later launch.
void stop();

void listShown(std::size_t items, std::size_t open);
void searched(std::size_t matches);
void helpShown();

void added(std::size_t words, std::size_t open);
void ticked(std::size_t items, std::size_t open);
void removed(bool wasDone);
void imported(std::size_t items);
void importFailed(const std::exception& error);

/// Shows alerts near the partner's shops and beacons, until the program ends.
void walkStarted();

void tipShown();
void tipRead();
void tipOrdered();

void loggedIn(const std::string& name, const std::string& company);
void loggedOut();

/// Records a link that opened the application.
void linkOpened(const std::string& link);
/// Records a push message and opens its link. False when `payload` is not a JSON object.
bool pushReceived(const std::string& payload);

}  // namespace todo::analytics
