#include "fuzz/made_value.h"

#include <bit>
#include <string>
#include <utility>

namespace marbleway::fuzz {
namespace {

constexpr int kDeepest = 20;
constexpr int kMostEntries = 20;
constexpr std::size_t kLongestText = 40;

Array madeArray(FuzzedDataProvider& bytes, int level) {
  Array made;
  for (int left = bytes.ConsumeIntegralInRange(0, kMostEntries); left > 0; --left) {
    made.push_back(madeValue(bytes, level + 1));
  }
  return made;
}

}  // namespace

Value madeValue(FuzzedDataProvider& bytes, int level) {
  switch (bytes.ConsumeIntegralInRange(0, level < kDeepest ? 6 : 4)) {
    case 0:
      return {};
    case 1:
      return bytes.ConsumeBool();
    case 2:
      return bytes.ConsumeIntegral<std::int64_t>();
    case 3:
      return std::bit_cast<double>(bytes.ConsumeIntegral<std::uint64_t>());
    case 4:
      return bytes.ConsumeRandomLengthString(kLongestText);
    case 5:
      return madeArray(bytes, level);
    default:
      return madeDictionary(bytes, level);
  }
}

Dictionary madeDictionary(FuzzedDataProvider& bytes, int level) {
  Dictionary made;
  for (int left = bytes.ConsumeIntegralInRange(0, kMostEntries); left > 0; --left) {
    std::string key = bytes.ConsumeRandomLengthString(kLongestText);
    made.set(std::move(key), madeValue(bytes, level + 1));
  }
  return made;
}

}  // namespace marbleway::fuzz
