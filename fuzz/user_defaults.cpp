// Any bytes as the file of the user defaults: the settings work, the file is JSON from then on, and
// what was there stays, in it or set aside.
//
// seed: {"Marbleway_UserID":"u","Marbleway_isValidSession":true,"other":{"a":[1]}}
// seed: ["Marbleway_UserID"]

#include <fstream>
#include <sstream>

#include "Marbleway/platform/linux/services.h"
#include "Marbleway/platform/value.h"
#include "fuzz/setting.h"
#include "fuzz/strict_json.h"

namespace {

using namespace marbleway;
using fuzz::require;
namespace fs = std::filesystem;

std::string content(const fs::path& file) {
  std::ostringstream bytes;
  bytes << std::ifstream(file, std::ios::binary).rdbuf();
  return bytes.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes = fuzz::textOf(data, size);
  const fs::path file = fuzz::setting().directory / "defaults.json";
  const fs::path aside = fs::path(file) += ".unreadable";
  fs::remove(aside);
  std::ofstream(file, std::ios::binary) << bytes;

  const auto settings = platform::makeFileDefaults(file);
  const auto before = settings->text("Marbleway_UserID");
  settings->setText("key", bytes);
  settings->setFlag("flag", true);
  settings->synchronize();
  require(settings->text("Marbleway_UserID") == before, "a setting stays");

  const std::string written = content(file);
  require(fuzz::readStrictly(written).has_value(), "the file is JSON");
  const auto object = valueFromJSON(bytes);
  const auto* members = object ? object->as<Dictionary>() : nullptr;
  require((members == nullptr) == fs::exists(aside), "what is no object is set aside");
  if (members == nullptr) {
    require(content(aside) == bytes, "it is kept as it was");
  } else {
    const Value now = valueFromJSON(written).value_or(nullptr);
    for (const auto& [key, value] : *members) {
      const Value* kept = now.as<Dictionary>()->find(key);
      const bool isOurs = key == "key" || key == "flag";
      require(kept != nullptr && (isOurs || toJSON(*kept) == toJSON(value)), "members stay");
    }
  }
  const auto reread = platform::makeFileDefaults(file);
  const std::string valid = fuzz::withReplacements(Text(bytes).view());
  require(reread->text("key") == valid, "a text reads back");
  require(reread->text("Marbleway_UserID") == before, "a text of before reads back");
  return 0;
}
