#include "tests/support/observer.h"

#include <charconv>
#include <regex>

#include "Marbleway/store/timestamp.h"

namespace marbleway::testing {
namespace {

constexpr std::string_view kPrefix = "mrbw_v2_";

std::string secondsSinceStart(const std::string& timeStamp) {
  const std::chrono::duration<double> seconds = *timeOf(timeStamp) - *timeOf(World::kStart);
  char digits[32];
  return {digits, std::to_chars(digits, digits + sizeof digits, seconds.count()).ptr};
}

// A folder in memory, where a row costs no disk's sync, or else the usual one.
std::filesystem::path memoryDirectory() {
  const std::filesystem::path memory("/dev/shm");
  return std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path();
}

// Replaces each match of `pattern` by what `shorten` makes of it.
template <class Shorten>
std::string replaceAll(const std::string& text, const std::regex& pattern, Shorten shorten) {
  std::string replaced;
  auto last = text.begin();
  for (std::sregex_iterator match(text.begin(), text.end(), pattern), end; match != end; ++match) {
    replaced.append(last, (*match)[0].first).append(shorten(*match));
    last = (*match)[0].second;
  }
  return replaced.append(last, text.end());
}

std::string shortened(const std::string& effect) {
  static const std::regex identifier("00000000-0000-0000-0000-0*([0-9]+)");
  static const std::regex time("2[0-9]{3}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3}");
  static const std::regex blanks(" +"), lineEnd("\n"), lastBlank(" $");
  std::string text = std::regex_replace(effect, identifier, "#$1");
  text = std::regex_replace(std::regex_replace(text, lineEnd, "\\n"), blanks, " ");
  return replaceAll(std::regex_replace(text, lastBlank, ""), time,
                    [](const auto& match) { return "@" + secondsSinceStart(match.str()); });
}

}  // namespace

std::string pathOfURL(const std::string& url) {
  constexpr std::string_view kServer = "https://collect.marbleway.invalid/v2/";
  return url.starts_with(kServer) ? url.substr(kServer.size()) : url;
}

void Observer::writeLine(std::string_view line) {
  constexpr std::string_view kName = "Marbleway ";
  report_(line.starts_with(kName) ? std::string(line.substr(kName.size()))
                                  : "unknown line " + std::string(line));
}

void Observer::showAlert(std::string_view title, std::string_view message,
                         std::string_view button) {
  report_(
      std::string("alert ").append(title).append(": ").append(message).append(", ").append(button));
}

void Observer::setText(std::string_view key, std::string_view text) {
  MemoryDefaults::setText(key, text);
  report_(std::string("sets ").append(key).append("=").append(text));
}

void Observer::setFlag(std::string_view key, bool flag) {
  MemoryDefaults::setFlag(key, flag);
  report_(std::string("sets ").append(key).append(flag ? "=true" : "=false"));
}

void Observer::remove(std::string_view key) {
  MemoryDefaults::remove(key);
  report_(std::string("removes ").append(key));
}

void Observer::post(platform::HttpRequest request, Done done) {
  report_("POST " + pathOfURL(request.url));
  HeldHttp::post(std::move(request), std::move(done));
}

ObservedWorld::ObservedWorld() : World(memoryDirectory()) {
  const auto observer =
      std::make_shared<Observer>([this](const std::string& effect) { add(effect); });
  http = observer;
  defaults = observer;
  device->setFacts({.vendorIdentifier = "vendor", .advertisingIdentifier = "advertiser"});
  platform::install({.console = observer,
                     .httpClient = observer,
                     .userDefaults = observer,
                     .userInterface = observer,
                     .networkCapture = observer,
                     .crashHook = observer});
}

void ObservedWorld::add(const std::string& effect) {
  addNewRows();
  effects_.push_back(shortened(effect));
}

std::vector<std::string> ObservedWorld::takeEffects() {
  addNewRows();
  return std::exchange(effects_, {});
}

void ObservedWorld::addNewRows() {
  if (!std::filesystem::is_regular_file(storePath())) return;
  for (const std::string& table : query(storePath(), "SELECT name FROM sqlite_sequence")) {
    std::int64_t& last = lastIDs_[table];
    const std::string after = " WHERE id > " + std::to_string(last);
    const auto ids = query(storePath(), "SELECT id FROM " + table + after);
    if (ids.empty()) continue;
    last = std::stoll(ids.back());
    for (const std::string& row : query(storePath(), "SELECT * FROM " + table + after)) {
      const std::string columns = row.substr(row.find('|') + 1);  // all but the id
      effects_.push_back(shortened(table.substr(kPrefix.size()).append(" ").append(columns)));
    }
  }
}

}  // namespace marbleway::testing
