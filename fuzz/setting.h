#pragma once

#include "tests/support/fixture.h"

namespace marbleway::fuzz {

/// What each target defines: `bytes` as its input.
void run(std::string_view bytes);

/// Aborts the process, which is then a finding, unless `holds`.
void require(bool holds, std::string_view property);

/// A network that holds the callback of the latest request.
struct LatestRequest : platform::HttpClient {
  using Done = std::function<void(std::optional<platform::HttpResponse>)>;
  void post(platform::HttpRequest /*request*/, Done whenDone) override {
    done = std::move(whenDone);
  }
  Done done;
};

/// The library on fakes, in a session whose start is forgotten. Made once in a process.
struct Setting : testing::World {
  Setting();
  std::shared_ptr<LatestRequest> network = std::make_shared<LatestRequest>();
};
Setting& setting();

/// The first eight bytes; fewer, completed by zeros.
std::int64_t integerIn(std::string_view bytes);
/// Each byte in two hexadecimal digits, after `mark`.
std::string hexOf(std::string_view bytes, std::string_view mark = "");
/// `text` with each byte that belongs to no valid UTF-8 sequence replaced by U+FFFD.
std::string withReplacements(std::string_view text);

/// What a JSON text holds, in order; keys are texts.
struct Content {
  std::vector<std::string> texts;
  std::vector<double> numbers;
  bool operator==(const Content&) const = default;
};
/// Absent when `json` is not valid JSON in valid UTF-8.
std::optional<Content> contentOf(std::string_view json);

}  // namespace marbleway::fuzz
