#include "fuzz/setting.h"

#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <mutex>

namespace marbleway::fuzz {
namespace {

struct Reading : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Reading> {
  bool String(const char* text, rapidjson::SizeType size, bool /*copy*/) {
    return texts.emplace_back(text, size), true;
  }
  std::vector<std::string> texts;
};

}  // namespace

void require(bool holds, std::string_view property) {
  if (holds) return;
  (void)std::fprintf(stderr, "does not hold: %s\n", std::string(property).c_str());
  std::abort();
}

testing::World& world() {
  static testing::World only;
  static std::once_flag isBegun;
  std::call_once(isBegun, [] { only.beginSession(), only.deleteRows(); });
  return only;
}

std::int64_t integerIn(std::string_view bytes) {
  std::int64_t integer = 0;
  bytes.copy(reinterpret_cast<char*>(&integer), sizeof integer);
  return integer;
}

std::string hexOf(std::string_view bytes, std::string_view mark) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  std::string result;
  for (const char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    result.append(mark).append({kDigits[byte / 16], kDigits[byte % 16]});
  }
  return result;
}

std::string withReplacements(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    rapidjson::MemoryStream stream(text.data(), text.size());
    unsigned point = 0;
    const std::size_t size = rapidjson::UTF8<>::Decode(stream, &point) ? stream.Tell() : 0;
    result += size > 0 ? text.substr(0, size) : "\uFFFD";
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return result;
}

std::optional<std::vector<std::string>> textsIn(std::string_view json) {
  using namespace rapidjson;
  MemoryStream stream(json.data(), json.size());
  Reading reading;
  constexpr unsigned kFlags = kParseValidateEncodingFlag | kParseIterativeFlag;
  if (Reader().Parse<kFlags>(stream, reading).IsError()) return std::nullopt;
  if (stream.Tell() != json.size()) return std::nullopt;  // a NUL ends the reading
  return reading.texts;
}

}  // namespace marbleway::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  marbleway::fuzz::world();
  marbleway::fuzz::run({reinterpret_cast<const char*>(data), size});
  return 0;
}
