#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <string_view>

// Reading messages that any peer may have sent: what has another type than expected is skipped or
// ends the reading.
namespace marbleway::desktop {

/// Called with each key of a dictionary: reads the value and returns true, or leaves it and returns
/// false.
using Visitor = std::function<bool(const char* key)>;

/// Reads a dictionary with texts as keys whose entries have the types `entry`, such as "sv". False
/// when the message does not have this shape.
bool readDictionary(sd_bus_message* message, const char* entry, const Visitor& visit);

/// Reads a value of one type; false leaves it to be skipped.
template <class T>
bool readVariant(sd_bus_message* message, const char* type, T& value) {
  return sd_bus_message_read(message, "v", type, &value) > 0;
}

/// Reads the interface of a PropertiesChanged signal; its properties are next.
std::string_view changedInterface(sd_bus_message* message);

}  // namespace marbleway::desktop
