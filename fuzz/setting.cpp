#include "fuzz/setting.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "Marbleway/Host.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/testing/fixed_device.h"
#include "Marbleway/platform/testing/memory_defaults.h"
#include "Marbleway/store/store.h"

namespace marbleway::fuzz {

void require(bool holds, std::string_view property) {
  if (holds) return;
  (void)std::fprintf(stderr, "does not hold: %.*s\n", static_cast<int>(property.size()),
                     property.data());
  std::abort();
}

Setting::Setting() {
  std::string name = (std::filesystem::temp_directory_path() / "marbleway-fuzz-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
  directory = name;
  configure({.documentsDirectory = directory, .bundleIdentifier = "org.example.app"});
  platform::install({.console = console,
                     .clock = time,
                     .mainLoop = time->mainLoop(),
                     .httpClient = http,
                     .userDefaults = std::make_shared<platform::testing::MemoryDefaults>(),
                     .device = std::make_shared<platform::testing::FixedDevice>()});
}

Setting::~Setting() {
  std::error_code error;
  std::filesystem::remove_all(directory, error);
}

Setting& setting() {
  static Setting only;
  return only;
}

Setting& settingWithStores() {
  static Setting& made = (setting(), createStores(), setting());
  return made;
}

std::vector<std::vector<std::string>> takeRows(const std::string& table,
                                               std::initializer_list<std::string_view> columns) {
  std::string sql = "SELECT id";
  for (const std::string_view column : columns) sql.append(", ").append(column);
  sql.append(" FROM ").append(table);

  std::vector<std::vector<std::string>> rows;
  Statement row(Store::event, sql.c_str());
  while (row.step()) {
    auto& values = rows.emplace_back();
    for (std::size_t i = 1; i <= columns.size(); ++i) {
      values.emplace_back(row.text(static_cast<int>(i)));
    }
  }
  if (!rows.empty()) runStatement(Store::event, ("DELETE FROM " + table).c_str());
  return rows;
}

}  // namespace marbleway::fuzz
