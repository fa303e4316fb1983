#pragma once

#include <optional>

#include "Marbleway/Host.h"
#include "Marbleway/platform/value.h"

namespace marbleway::c {

/// The configuration with the members of a dictionary. Absent when a key is unknown or a value is
/// of the wrong kind.
std::optional<Configuration> configurationFrom(const Dictionary& members);

}  // namespace marbleway::c
