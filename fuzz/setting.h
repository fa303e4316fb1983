#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Marbleway/platform/http.h"
#include "Marbleway/platform/testing/fake_time.h"
#include "Marbleway/platform/testing/recording_console.h"

namespace marbleway::fuzz {

/// Ends the process, which is then a finding, unless `holds`.
void require(bool holds, std::string_view property);

/// The bytes that the fuzzer hands over.
inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// A network that keeps the latest request's `done`.
class OneRequest : public platform::HttpClient {
 public:
  using Done = std::function<void(std::optional<platform::HttpResponse>)>;
  void post(platform::HttpRequest /*request*/, Done done) override { done_ = std::move(done); }
  void answer(platform::HttpResponse answer) const { done_(std::move(answer)); }

 private:
  Done done_;
};

/// The library on fakes: virtual time, lines that are kept, no network, stores in a directory of
/// their own. Made once in a process, when first asked for.
struct Setting {
  Setting();
  ~Setting();
  Setting(const Setting&) = delete;
  Setting& operator=(const Setting&) = delete;

  std::filesystem::path directory;
  std::shared_ptr<platform::testing::FakeTime> time =
      std::make_shared<platform::testing::FakeTime>();
  std::shared_ptr<platform::testing::RecordingConsole> console =
      std::make_shared<platform::testing::RecordingConsole>();
  std::shared_ptr<OneRequest> http = std::make_shared<OneRequest>();
};
Setting& setting();

/// The setting with both stores made.
Setting& settingWithStores();

/// The rows of a table of the event store, which are then deleted: the columns named, NULL as "".
std::vector<std::vector<std::string>> takeRows(const std::string& table,
                                               std::initializer_list<std::string_view> columns);

}  // namespace marbleway::fuzz
