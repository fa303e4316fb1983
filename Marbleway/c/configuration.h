#pragma once

#include <optional>

#include "Marbleway/Host.h"
#include "Marbleway/platform/value.h"

namespace marbleway::c {

/// The configuration that a dictionary tells; absent when it has a key that the configuration has
/// not, or a value of another kind.
std::optional<Configuration> configurationFrom(const Dictionary& told);

}  // namespace marbleway::c
