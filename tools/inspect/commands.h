#pragma once

#include <ostream>

#include "tools/inspect/arguments.h"

namespace inspect {

/// Carries out a command on a directory: what it shows goes to `out`, whole rows as they are read;
/// what is to be known about it to `notes`, a line each. Throws a ReadError.
void carryOut(const Request& request, std::ostream& out, std::ostream& notes);

}  // namespace inspect
