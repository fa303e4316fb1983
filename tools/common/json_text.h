#pragma once

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>
#include <string_view>

namespace tools {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

void put(JsonWriter& writer, std::string_view text);
inline void put(JsonWriter& writer, const char* text) { put(writer, std::string_view(text)); }
inline void put(JsonWriter& writer, const std::string& text) {
  put(writer, std::string_view(text));
}
inline void put(JsonWriter& writer, bool value) { writer.Bool(value); }
inline void put(JsonWriter& writer, int value) { writer.Int(value); }
inline void put(JsonWriter& writer, long long value) { writer.Int64(value); }
inline void put(JsonWriter& writer, std::size_t value) { writer.Uint64(value); }

void member(JsonWriter& writer, std::string_view key, const auto& value) {
  put(writer, key);
  put(writer, value);
}

/// The array of two texts that stands for a header, a column and the like.
inline void putPair(JsonWriter& writer, std::string_view name, std::string_view value) {
  writer.StartArray();
  put(writer, name);
  put(writer, value);
  writer.EndArray();
}

/// The document that `write` writes.
std::string jsonText(const auto& write) {
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  write(writer);
  return {buffer.GetString(), buffer.GetSize()};
}

/// Milliseconds since 1970, UTC.
long long millisecondsNow();

/// yyyy-MM-ddTHH:mm:ss.SSSZ, of milliseconds since 1970.
std::string isoTime(long long milliseconds);

}  // namespace tools
