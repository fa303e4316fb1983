#include "desktop/reading.h"

#include <string>

namespace marbleway::desktop {

bool readDictionary(sd_bus_message* message, const char* entry, const Visitor& visit) {
  const std::string types = std::string("{").append(entry).append("}");
  if (sd_bus_message_enter_container(message, 'a', types.c_str()) <= 0) return false;
  while (sd_bus_message_enter_container(message, 'e', entry) > 0) {
    const char* key = nullptr;
    if (sd_bus_message_read_basic(message, *entry, &key) <= 0) return false;
    if (!visit(key) && sd_bus_message_skip(message, entry + 1) < 0) return false;
    if (sd_bus_message_exit_container(message) < 0) return false;
  }
  return sd_bus_message_exit_container(message) >= 0;
}

std::string_view changedInterface(sd_bus_message* message) {
  const char* name = "";
  return sd_bus_message_read(message, "s", &name) > 0 ? name : "";
}

}  // namespace marbleway::desktop
