#pragma once

#include "Marbleway/platform/value.h"

namespace marbleway {

/// Reads the ten start-up options into the process-wide state, in their order; an option left out
/// or refused takes its default. A refusal is a warning.
void readOptions(const Dictionary& options);

/// What `initMarbleway` without options passes. Privacy mode and network monitoring are off here
/// and on where `initMarbleway` with options finds them left out.
Dictionary defaultOptions();

}  // namespace marbleway
