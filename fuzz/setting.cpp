#include "fuzz/setting.h"

#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <cstring>

namespace marbleway::fuzz {
namespace {

struct Reading : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Reading> {
  bool String(const char* text, rapidjson::SizeType size, bool /*copy*/) {
    content.texts.emplace_back(text, size);
    return true;
  }
  bool RawNumber(const char* text, rapidjson::SizeType size, bool /*copy*/) {
    content.numbers.push_back(std::strtod(std::string(text, size).c_str(), nullptr));
    return true;
  }
  Content content;
};

}  // namespace

void require(bool holds, std::string_view property) {
  if (holds) return;
  (void)std::fprintf(stderr, "does not hold: %s\n", std::string(property).c_str());
  std::abort();
}

Setting::Setting() {
  beginSession();
  deleteRows();
  platform::install({.httpClient = network});
}

Setting& setting() {
  static Setting only;
  return only;
}

std::int64_t integerIn(std::string_view bytes) {
  std::int64_t integer = 0;
  std::memcpy(&integer, bytes.data(), std::min(bytes.size(), sizeof integer));
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

std::optional<Content> contentOf(std::string_view json) {
  using namespace rapidjson;
  constexpr unsigned kFlags =
      kParseValidateEncodingFlag | kParseIterativeFlag | kParseNumbersAsStringsFlag;
  MemoryStream stream(json.data(), json.size());
  Reading reading;
  const bool isValid = !Reader().Parse<kFlags>(stream, reading).IsError();
  if (!isValid || stream.Tell() != json.size()) return std::nullopt;  // a NUL ends the reading
  return reading.content;
}

}  // namespace marbleway::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  marbleway::fuzz::setting();
  marbleway::fuzz::run({reinterpret_cast<const char*>(data), size});
  return 0;
}
