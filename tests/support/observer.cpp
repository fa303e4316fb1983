#include <algorithm>
#include <charconv>
#include <functional>

#include "Marbleway/store/timestamp.h"
#include "tests/support/scenario.h"

namespace marbleway::testing {
namespace {

// `text` without `prefix`, where it begins with it.
std::string without(std::string_view prefix, std::string_view text) {
  return std::string(text.starts_with(prefix) ? text.substr(prefix.size()) : text);
}

// The services of the platform; each reports what the library asks of it.
class Observer : public platform::Console,
                 public platform::UserInterface,
                 public platform::NetworkCapture,
                 public platform::CrashHook,
                 public platform::testing::MemoryDefaults,
                 public platform::testing::HeldHttp {
 public:
  using Report = std::function<void(std::string effect)>;

  explicit Observer(Report report) : report_(std::move(report)) {}

  void writeLine(std::string_view line) override {
    report_(line.starts_with(kName) ? without(kName, line) : "unknown line " + std::string(line));
  }
  void setBadgeNumber(int number) override { report_("badge " + std::to_string(number)); }
  void openURL(std::string_view url) override { report_("opens " + std::string(url)); }
  void showAlert(std::string_view title, std::string_view text, std::string_view button) override {
    report_(
        std::string("alert ").append(title).append(": ").append(text).append(", ").append(button));
  }
  void defaultConfiguration() override { report_("capture defaultConfiguration"); }
  void load() override { report_("capture load"); }
  void registerProtocol() override { report_("capture registerProtocol"); }
  void unregisterProtocol() override { report_("capture unregisterProtocol"); }
  void install(void (*)(const platform::Failure&)) override { report_("crash hook"); }
  void setText(std::string_view key, std::string_view text) override {
    MemoryDefaults::setText(key, text);
    report_(std::string("sets ").append(key).append("=").append(text));
  }
  void setFlag(std::string_view key, bool flag) override {
    MemoryDefaults::setFlag(key, flag);
    report_(std::string("sets ").append(key).append(flag ? "=true" : "=false"));
  }
  void remove(std::string_view key) override {
    MemoryDefaults::remove(key);
    report_(std::string("removes ").append(key));
  }
  void synchronize() override { report_("save"); }
  void post(platform::HttpRequest request, Done done) override {
    report_("POST " + without("https://collect.marbleway.invalid/v2/", request.url));
    HeldHttp::post(std::move(request), std::move(done));
  }

 private:
  static constexpr std::string_view kName = "Marbleway ";

  Report report_;
};

// A folder in memory, where a row costs no disk's sync, or else the usual one.
std::filesystem::path memoryDirectory() {
  const std::filesystem::path memory("/dev/shm");
  return std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path();
}

std::string secondsText(std::chrono::duration<double> seconds) {
  return "@" + ::testing::PrintToString(seconds.count());
}

std::string shortened(std::string text) {
  constexpr std::string_view kIdentifier = "00000000-0000-0000-0000-";
  constexpr std::size_t kNumber = 12, kTime = std::string_view(World::kStart).size();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text.compare(i, kIdentifier.size(), kIdentifier) == 0) {
      const int number = std::stoi(text.substr(i + kIdentifier.size(), kNumber));
      text.replace(i, kIdentifier.size() + kNumber,
                   std::string("#").append(std::to_string(number)));
    } else if (const auto time = timeOf(std::string_view(text).substr(i, kTime))) {
      text.replace(i, kTime, secondsText(*time - *timeOf(World::kStart)));
    } else if (text[i] == '\n') {
      text.replace(i, 1, "\\n");
    } else if (text[i] == ' ' && (i + 1 == text.size() || text[i + 1] == ' ')) {
      text.erase(i--, 1);
    }
  }
  return text;
}

}  // namespace

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
    for (const std::string& row :
         query(storePath(), "SELECT * FROM " + table + " WHERE id > " + std::to_string(last))) {
      last = std::stoll(row);
      effects_.push_back(
          shortened(without("mrbw_v2_", table) + " " + row.substr(row.find('|') + 1)));
    }
  }
}

}  // namespace marbleway::testing
