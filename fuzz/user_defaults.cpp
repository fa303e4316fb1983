// Any bytes as the settings file: settings work, and what it held stays, in it or set aside.
//
// seed: {"Marbleway_UserID":"u","Marbleway_isValidSession":true,"other":{"a":[1]}}
// seed: ["Marbleway_UserID"]

#include <fstream>

#include "Marbleway/platform/linux/services.h"
#include "fuzz/setting.h"

using namespace marbleway;
namespace fs = std::filesystem;

void fuzz::run(std::string_view bytes) {
  const fs::path file = fuzz::world().directory.path() / "defaults.json";
  const fs::path aside = fs::path(file) += ".unreadable";
  fs::remove(aside);
  std::ofstream(file, std::ios::binary) << bytes;
  const auto settings = platform::makeFileDefaults(file);
  settings->setText("key", bytes);
  settings->synchronize();

  const auto given = valueFromJSON(bytes);
  const auto* members = given ? given->as<Dictionary>() : nullptr;
  require((members == nullptr) == fs::exists(aside), "what is no object is set aside");
  require(members != nullptr || fs::file_size(aside) == bytes.size(), "it stays as it was");
  const auto reread = platform::makeFileDefaults(file);
  for (const auto& [key, value] : members != nullptr ? *members : Dictionary()) {
    const auto* text = value.as<std::string>();
    require(key == "key" || text == nullptr || reread->text(key) == *text, "members stay");
  }
  require(reread->text("key") == fuzz::withReplacements(Text(bytes).view()), "a text reads back");
}
