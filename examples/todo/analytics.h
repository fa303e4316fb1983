#pragma once

#include <cstddef>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

/// All that the application tells about its use, in one place: how often and how much, never the
/// text of a to-do. The rest of the application knows nothing of the library. Thread: the main one.
namespace todo::analytics {

struct Settings {
  std::string collector;            // base URL, ending in "/v2/"; empty: nothing is recorded
  std::string token;                // of the project
  std::filesystem::path directory;  // where rows wait until they have been delivered
};

/// Starts recording. `openLink` opens the link of a push message inside the application.
///
/// Throws std::invalid_argument for a collector's URL that is none.
void start(const Settings& settings, std::function<void(std::string_view)> openLink);

/// Waits until start-up has been answered, some seconds at most.
void settle();

/// Ends the session and delivers its rows; what cannot be delivered within some seconds waits on
/// disk for the next launch.
void finish();

void listShown(std::size_t items, std::size_t open);
void searched(std::size_t matches);
void helpShown();

void added(std::size_t words, std::size_t open);
void ticked(std::size_t items, std::size_t open);
void removed(bool wasDone);
void imported(std::size_t items);
void importFailed(const std::exception& error);

void tipShown();
void tipRead();
void tipOrdered();

void loggedIn(const std::string& name, const std::string& company);
void loggedOut();

/// Records the link that opens the application.
void linkOpened(const std::string& link);
/// Records a push message and opens its link. False: `payload` is no JSON object.
bool pushReceived(const std::string& payload);

}  // namespace todo::analytics
