#include "tools/collector/behaviour.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "tools/collector/handshake.h"
#include "tools/collector/json_members.h"
#include "tools/common/json_text.h"

namespace collector {
namespace {

using rapidjson::Value;

bool isFlag(const Value& value) { return value.IsBool(); }
bool isTime(const Value& value) { return value.IsNumber() && value.GetDouble() >= 0; }
bool isList(const Value& value) {
  return value.IsNull() ||
         (value.IsArray() && std::all_of(value.Begin(), value.End(),
                                         [](const Value& entry) { return entry.IsString(); }));
}

/// A member of the configuration that can be changed.
struct Setting {
  const char *section, *member;  // where it stands in the answer's "Data"
  bool (*isValid)(const Value&);
  const char* form;  // what a valid value is
};
constexpr std::array<Setting, 5> kSettings{{
    {"Config", "PrivacyMode", isFlag, "true or false"},
    {"Config", "AdvertisingID", isFlag, "true or false"},
    {"Config", "SessionTimeout", isTime, "a number of seconds"},
    {"NetworkMonitoring", "NetworkMonitoringEnabled", isFlag, "true or false"},
    {"NetworkMonitoring", "Blacklist", isList, "an array of texts, or null"},
}};
auto& settingIn(auto& answer, const Setting& setting) {
  auto& section = answer.FindMember("Data")->value.FindMember(setting.section)->value;
  return section.FindMember(setting.member)->value;
}

constexpr std::array<std::string_view, 7> kKeys{
    "PrivacyMode", "AdvertisingID", "SessionTimeout", "NetworkMonitoring",
    "Blacklist",   "fault",         "appliesTo"};
constexpr std::size_t kFaultKey = 5;

constexpr std::array<std::string_view, 8> kFaults{
    // in the order of Fault
    "none", "notJSON", "noContent", "unauthorized", "error", "slow", "never", "reset"};
constexpr std::array<std::string_view, 3> kTargets{"both", "handshake", "batch"};

[[noreturn]] void refuse(std::string_view key, const std::string& fault) {
  throw Refusal(400, std::string(key).append(": ").append(fault));
}

std::size_t choice(std::string_view key, const Value& value, const auto& names) {
  if (!value.IsString()) refuse(key, "not text");
  const auto found = std::find(names.begin(), names.end(), textOf(value));
  if (found == names.end()) refuse(key, inQuotes(textOf(value)) + " is not known");
  return static_cast<std::size_t>(found - names.begin());
}

/// Throws for a member that has no business there, or not with this value.
void check(const rapidjson::Document& document) {
  if (!document.IsObject()) throw Refusal(400, "document: not an object");
  Members members(kKeys);
  for (const auto& [name, value] : document.GetObject()) {
    const std::size_t position = members.admit(textOf(name), [] { return "document"; });
    if (position == kFaultKey) {
      choice(kKeys[position], value, kFaults);
    } else if (position > kFaultKey) {
      choice(kKeys[position], value, kTargets);
    } else if (!kSettings[position].isValid(value)) {
      refuse(kKeys[position], std::string("not ") + kSettings[position].form);
    }
  }
}

}  // namespace

Behaviour::Behaviour(const std::string& file) { answer_.Parse(handshakeAnswer(file).c_str()); }

std::string Behaviour::answer() const {
  const std::scoped_lock lock(mutex_);
  return tools::jsonText([&](tools::JsonWriter& writer) { answer_.Accept(writer); });
}

Fault Behaviour::faultOf(Request request) const {
  const std::scoped_lock lock(mutex_);
  const bool applies = appliesTo_ == 0 || (appliesTo_ == 1) == (request == Request::handshake);
  return applies ? static_cast<Fault>(fault_) : Fault::none;
}

std::string Behaviour::text() const {
  const std::scoped_lock lock(mutex_);
  return tools::jsonText([&](tools::JsonWriter& writer) {
    writer.StartObject();
    for (std::size_t i = 0; i < kSettings.size(); ++i) {
      tools::put(writer, kKeys[i]);
      settingIn(answer_, kSettings[i]).Accept(writer);
    }
    tools::member(writer, "fault", kFaults[fault_]);
    tools::member(writer, "appliesTo", kTargets[appliesTo_]);
    writer.EndObject();
  });
}

void Behaviour::change(std::string& document) {
  rapidjson::Document wanted;
  parseStrictly(document, wanted);
  check(wanted);
  const std::scoped_lock lock(mutex_);
  for (const auto& [name, value] : std::as_const(wanted).GetObject()) {
    const auto* const key = std::find(kKeys.begin(), kKeys.end(), textOf(name));
    const auto position = static_cast<std::size_t>(key - kKeys.begin());
    if (position < kFaultKey) set(position, value);
    if (position == kFaultKey) fault_ = choice(*key, value, kFaults);
    if (position > kFaultKey) appliesTo_ = choice(*key, value, kTargets);
  }
  ++changes_;
}

long long Behaviour::changes() const {
  const std::scoped_lock lock(mutex_);
  return changes_;
}

/// Copies by writing and reading: the texts in `value` belong to the document it came in.
void Behaviour::set(std::size_t position, const rapidjson::Value& value) {
  rapidjson::Document copy(&answer_.GetAllocator());
  copy.Parse(tools::jsonText([&](tools::JsonWriter& writer) { value.Accept(writer); }).c_str());
  settingIn(answer_, kSettings[position]).Swap(copy);
}

}  // namespace collector
