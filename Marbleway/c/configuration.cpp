#include "Marbleway/c/configuration.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Marbleway/platform/paths.h"

namespace marbleway::c {
namespace {

struct TextMember {
  std::string_view key;
  std::string Configuration::*member;
};

constexpr TextMember kTextMembers[] = {
    {"developmentURL", &Configuration::developmentURL},
    {"testURL", &Configuration::testURL},
    {"productionURL", &Configuration::productionURL},
    {"bundleIdentifier", &Configuration::bundleIdentifier},
    {"appVersion", &Configuration::appVersion},
};

std::optional<double> numberIn(const Dictionary& place, std::string_view key) {
  const Value* value = place.find(key);
  if (value == nullptr) return std::nullopt;
  if (const auto* whole = value->as<std::int64_t>()) return static_cast<double>(*whole);
  const auto* number = value->as<double>();
  return number != nullptr ? std::optional(*number) : std::nullopt;
}

bool readFlag(const Value& value, bool& flag) {
  const auto* given = value.as<bool>();
  if (given != nullptr) flag = *given;
  return given != nullptr;
}

bool readSites(const Value& value, Configuration& configuration) {
  const auto* sites = value.as<Array>();
  if (sites == nullptr || sites->size() != configuration.sites.size()) return false;
  for (std::size_t i = 0; i < sites->size(); ++i) {
    const auto* site = (*sites)[i].as<Dictionary>();
    if (site == nullptr) return false;
    const auto latitude = numberIn(*site, "latitude");
    const auto longitude = numberIn(*site, "longitude");
    if (!latitude || !longitude) return false;
    configuration.sites.at(i) = {*latitude, *longitude};
  }
  return true;
}

bool read(const Dictionary::Entry& entry, Configuration& configuration) {
  const auto& [key, value] = entry;
  if (key == "sites") return readSites(value, configuration);
  if (key == "uploadOnStart") return readFlag(value, configuration.uploadOnStart);
  const auto* text = value.as<std::string>();
  if (text == nullptr) return false;
  if (key == "documentsDirectory") {
    configuration.documentsDirectory = platform::pathFrom(*text);
    return true;
  }
  const auto* known = std::ranges::find(kTextMembers, key, &TextMember::key);
  if (known == std::end(kTextMembers)) return false;
  configuration.*known->member = *text;
  return true;
}

}  // namespace

std::optional<Configuration> configurationFrom(const Dictionary& members) {
  Configuration configuration;
  const bool isRead = std::ranges::all_of(
      members, [&](const Dictionary::Entry& entry) { return read(entry, configuration); });
  return isRead ? std::optional(configuration) : std::nullopt;
}

}  // namespace marbleway::c
