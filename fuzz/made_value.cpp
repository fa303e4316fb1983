#include "fuzz/made_value.h"

#include <bit>
#include <string>
#include <utility>

namespace marbleway::fuzz {
namespace {

constexpr int kMaxDepth = 20;
constexpr int kMaxEntries = 20;
constexpr std::size_t kMaxTextLength = 40;

Array madeArray(FuzzedDataProvider& bytes, int level) {
  Array made;
  for (int left = bytes.ConsumeIntegralInRange(0, kMaxEntries); left > 0; --left) {
    made.push_back(madeValue(bytes, level + 1));
  }
  return made;
}

}  // namespace

Value madeValue(FuzzedDataProvider& bytes, int level) {
  switch (bytes.ConsumeIntegralInRange(0, level < kMaxDepth ? 6 : 4)) {
    case 0:
      return {};
    case 1:
      return bytes.ConsumeBool();
    case 2:
      return bytes.ConsumeIntegral<std::int64_t>();
    case 3:
      return std::bit_cast<double>(bytes.ConsumeIntegral<std::uint64_t>());
    case 4:
      return bytes.ConsumeRandomLengthString(kMaxTextLength);
    case 5:
      return madeArray(bytes, level);
    default:
      return madeDictionary(bytes, level);
  }
}

Dictionary madeDictionary(FuzzedDataProvider& bytes, int level) {
  Dictionary made;
  for (int left = bytes.ConsumeIntegralInRange(0, kMaxEntries); left > 0; --left) {
    std::string key = bytes.ConsumeRandomLengthString(kMaxTextLength);
    made.set(std::move(key), madeValue(bytes, level + 1));
  }
  return made;
}

}  // namespace marbleway::fuzz
