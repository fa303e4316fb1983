#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/fixture.h"

namespace marbleway::testing {

/// `url` without the production server's part.
std::string pathOfURL(const std::string& url);

/// Surroundings that report each thing that the library asks of them, in order.
class Observer : public platform::Console,
                 public platform::UserInterface,
                 public platform::NetworkCapture,
                 public platform::CrashHook,
                 public platform::testing::MemoryDefaults,
                 public platform::testing::HeldHttp {
 public:
  using Report = std::function<void(std::string effect)>;

  explicit Observer(Report report) : report_(std::move(report)) {}

  void writeLine(std::string_view line) override;
  void setBadgeNumber(int number) override { report_("badge " + std::to_string(number)); }
  void openURL(std::string_view url) override { report_("opens " + std::string(url)); }
  void showAlert(std::string_view title, std::string_view message,
                 std::string_view button) override;
  void defaultConfiguration() override { report_("capture defaultConfiguration"); }
  void load() override { report_("capture load"); }
  void registerProtocol() override { report_("capture registerProtocol"); }
  void unregisterProtocol() override { report_("capture unregisterProtocol"); }
  void install(void (*)(const platform::Failure&)) override { report_("crash hook"); }
  void setText(std::string_view key, std::string_view text) override;
  void setFlag(std::string_view key, bool flag) override;
  void remove(std::string_view key) override;
  void synchronize() override { report_("save"); }
  void post(platform::HttpRequest request, Done done) override;

 private:
  Report report_;
};

/// A world whose changes are written down as texts, in order: rows of the event store, and what an
/// `Observer` reports.
class ObservedWorld : public World {
 public:
  ObservedWorld();

  /// Adds an effect, after the rows that came before it. Thread: any, one at a time.
  void add(const std::string& effect);
  /// The effects since the last call. Session and time texts are shortened: "#2" is the second
  /// identifier that the device made, "@1.5" a time 1.5 s after the start. A line's end is "\n",
  /// and blanks in a row are one.
  std::vector<std::string> takeEffects();

 private:
  void addNewRows();

  std::vector<std::string> effects_;
  std::map<std::string, std::int64_t> lastIDs_;  // by table
};

}  // namespace marbleway::testing
