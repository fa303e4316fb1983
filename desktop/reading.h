#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <string_view>

// Reading messages that any peer may have sent: what has another type than expected is skipped or
// ends the reading.
namespace marbleway::desktop {

/// Reads a dictionary whose entries have the types `entry`, such as "sv". `visit` is called with
/// each key; it reads the value and returns true, or leaves it and returns false. False when the
/// message does not have this shape.
template <class Key = const char*, class Visit>
bool readDictionary(sd_bus_message* message, const std::string& entry, Visit visit) {
  const std::string types = "{" + entry + "}";
  if (sd_bus_message_enter_container(message, 'a', types.c_str()) <= 0) return false;
  while (sd_bus_message_enter_container(message, 'e', entry.c_str()) > 0) {
    Key key{};
    if (sd_bus_message_read_basic(message, entry.front(), &key) <= 0) return false;
    if (!visit(key) && sd_bus_message_skip(message, entry.c_str() + 1) < 0) return false;
    if (sd_bus_message_exit_container(message) < 0) return false;
  }
  return sd_bus_message_exit_container(message) >= 0;
}

/// Reads a value of one type; false leaves it to be skipped.
template <class T>
bool readVariant(sd_bus_message* message, const char* type, T& value) {
  return sd_bus_message_read(message, "v", type, &value) > 0;
}

/// Reads the answer to GetManagedObjects. `visit` is called with the path and the properties'
/// message for each object's interface `interface`, and reads the properties or returns false.
template <class Visit>
bool readObjects(sd_bus_message* message, std::string_view interface, Visit visit) {
  return readDictionary(message, "oa{sa{sv}}", [&](std::string_view path) {
    return readDictionary(message, "sa{sv}",
                          [&](std::string_view name) { return name == interface && visit(path); });
  });
}

/// Reads the interface of a PropertiesChanged signal; its properties are next.
inline std::string_view changedInterface(sd_bus_message* message) {
  const char* name = "";
  return sd_bus_message_read(message, "s", &name) > 0 ? name : "";
}

}  // namespace marbleway::desktop
