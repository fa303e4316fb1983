// Any bytes as the settings file: settings work, the file is JSON from then on, and what it held
// stays, in it or set aside.
//
// seed: {"Marbleway_UserID":"u","Marbleway_isValidSession":true,"other":{"a":[1]}}
// seed: ["Marbleway_UserID"]

#include <fstream>
#include <sstream>

#include "Marbleway/platform/linux/services.h"
#include "fuzz/setting.h"

using namespace marbleway;
namespace fs = std::filesystem;

namespace {

std::string content(const fs::path& file) {
  std::ostringstream bytes;
  bytes << std::ifstream(file, std::ios::binary).rdbuf();
  return bytes.str();
}

}  // namespace

void fuzz::run(std::string_view bytes) {
  const fs::path file = fuzz::setting().directory.path() / "defaults.json";
  const fs::path aside = fs::path(file) += ".unreadable";
  fs::remove(aside);
  std::ofstream(file, std::ios::binary) << bytes;

  const auto settings = platform::makeFileDefaults(file);
  const auto before = settings->text("Marbleway_UserID");
  settings->setText("key", bytes);
  settings->setFlag("flag", true);
  settings->synchronize();

  const auto written = valueFromJSON(content(file));
  require(written && written->as<Dictionary>() != nullptr, "the file is JSON");
  const auto given = valueFromJSON(bytes);
  const auto* members = given ? given->as<Dictionary>() : nullptr;
  require((members == nullptr) == fs::exists(aside), "what is no object is set aside");
  require(members != nullptr || content(aside) == bytes, "it is kept as it was");
  for (const auto& [key, value] : members != nullptr ? *members : Dictionary()) {
    const Value* member = written->as<Dictionary>()->find(key);
    const bool isOurs = key == "key" || key == "flag";
    require(member != nullptr && (isOurs || toJSON(*member) == toJSON(value)), "members stay");
  }
  const auto reread = platform::makeFileDefaults(file);
  require(reread->text("key") == fuzz::withReplacements(Text(bytes).view()), "a text reads back");
  require(reread->text("Marbleway_UserID") == before, "a text of before reads back");
}
