#pragma once

#include <systemd/sd-bus.h>

#include <string_view>

// Reading messages that any peer may have sent: what has another type than expected is skipped or
// ends the reading.
namespace marbleway::desktop {

/// Reads a dictionary with texts as keys from a message.
class Dictionary {
 public:
  /// `entry` are the types of an entry, such as "sv".
  Dictionary(sd_bus_message* message, const char* entry) : message_(message), entry_(entry) {}

  /// Goes to the next entry; its value is next in the message. Skips a value that was not read.
  /// False at the end, and when the message has another shape.
  bool next();
  /// Of the entry.
  std::string_view key() const { return key_; }
  /// Reads the entry's value, a variant, if it has this key and type.
  bool read(std::string_view key, const char* type, void* value);

 private:
  bool enter();
  bool leaveEntry();

  sd_bus_message* message_;
  const char* entry_;
  const char* key_ = nullptr;
};

/// Reads a variant of one type; false leaves it to be skipped. `value` is as for
/// sd_bus_message_read.
bool readVariant(sd_bus_message* message, const char* type, void* value);

/// Reads the interface of a PropertiesChanged signal; its properties are next.
std::string_view changedInterface(sd_bus_message* message);

}  // namespace marbleway::desktop
