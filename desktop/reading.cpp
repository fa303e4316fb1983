#include "desktop/reading.h"

#include <string>

namespace marbleway::desktop {

bool Dictionary::next() {
  const bool isBetweenEntries = key_ == nullptr ? enter() : leaveEntry();
  if (!isBetweenEntries) return false;
  const int isEntered = sd_bus_message_enter_container(message_, 'e', entry_);
  if (isEntered == 0) sd_bus_message_exit_container(message_);
  return isEntered > 0 && sd_bus_message_read_basic(message_, *entry_, &key_) > 0;
}

bool Dictionary::enter() {
  const std::string types = std::string("{").append(entry_).append("}");
  return sd_bus_message_enter_container(message_, 'a', types.c_str()) > 0;
}

bool Dictionary::leaveEntry() {
  const bool isRead = sd_bus_message_at_end(message_, 0) > 0;
  if (!isRead && sd_bus_message_skip(message_, entry_ + 1) < 0) return false;
  return sd_bus_message_exit_container(message_) >= 0;
}

bool Dictionary::read(std::string_view key, const char* type, void* value) {
  return key == key_ && readVariant(message_, type, value);
}

bool readVariant(sd_bus_message* message, const char* type, void* value) {
  return sd_bus_message_read(message, "v", type, value) > 0;
}

std::string_view changedInterface(sd_bus_message* message) {
  const char* name = "";
  return sd_bus_message_read(message, "s", &name) > 0 ? name : "";
}

}  // namespace marbleway::desktop
