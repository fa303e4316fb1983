#include "tools/collector/handshake.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <fstream>
#include <iterator>
#include <utility>

#include "tools/collector/json_members.h"

namespace collector {
namespace {

constexpr const char* kDefault = R"({
  "Config": {"PrivacyMode": false, "AdvertisingID": false, "SessionTimeout": 300},
  "NetworkMonitoring": {"NetworkMonitoringEnabled": false, "Blacklist": []}
})";
constexpr double kMinSessionTimeout = 60;

std::string contentsOf(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(stream), {}};
  if (!stream || text.empty()) throw std::runtime_error("it cannot be read, or is empty");
  return text;
}

/// Gives `object` each member of `defaults` that it lacks, made of `document`'s memory.
void complete(rapidjson::Value& object, const rapidjson::Value& defaults,
              rapidjson::Document& document) {
  for (const auto& member : defaults.GetObject()) {
    if (object.HasMember(member.name)) continue;
    object.AddMember(rapidjson::Value(member.name, document.GetAllocator()),
                     rapidjson::Value(member.value, document.GetAllocator()),
                     document.GetAllocator());
  }
}

std::string answerFrom(std::string text) {
  rapidjson::Document defaults, data;
  defaults.Parse(kDefault);
  parseStrictly(text, data);
  if (!data.IsObject()) throw std::runtime_error("it is not a JSON object");
  complete(data, defaults, data);
  for (const auto& section : std::as_const(defaults).GetObject()) {
    rapidjson::Value& own = data.FindMember(section.name)->value;
    if (!own.IsObject()) throw std::runtime_error(inQuotes(textOf(section.name)) + " is no object");
    complete(own, section.value, data);
  }
  const rapidjson::Value& config = data.FindMember("Config")->value;
  const rapidjson::Value& timeout = config.FindMember("SessionTimeout")->value;
  if (!timeout.IsNumber() || timeout.GetDouble() < kMinSessionTimeout) {
    throw std::runtime_error("\"SessionTimeout\" is not a number of at least 60 seconds");
  }
  rapidjson::StringBuffer answer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(answer);
  writer.StartObject();
  writer.Key("Data");
  data.Accept(writer);
  writer.EndObject();
  return answer.GetString();
}

}  // namespace

HandshakeRequest readHandshake(std::string& document) {
  constexpr std::array<std::string_view, 2> kKeys{"OS", "BundleID"};
  const auto place = [] { return "document"; };
  rapidjson::Document root;
  parseStrictly(document, root);
  if (!root.IsObject()) throw Refusal(400, "document: not an object");
  Members members(kKeys);
  std::array<std::string, 2> texts;
  for (const auto& member : std::as_const(root).GetObject()) {
    const std::size_t position = members.admit(textOf(member.name), place);
    if (!member.value.IsString()) throw Refusal(400, std::string(kKeys[position]) + ": not text");
    texts[position] = textOf(member.value);
  }
  members.requireAll(place);
  return {texts[0], texts[1]};
}

std::string handshakeAnswer(const std::string& file) {
  if (file.empty()) return answerFrom(kDefault);
  try {
    return answerFrom(contentsOf(file));
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("the configuration " + file + " cannot serve: " + error.what());
  }
}

}  // namespace collector
