#pragma once

#include <ostream>

#include "tools/inspect/arguments.h"

namespace inspect {

/// Runs a command on a directory: its output goes to `out`, in whole rows as they are read, remarks
/// to `notes`, a line each. Throws a ReadError or a DatabaseError.
void runCommand(const Request& request, std::ostream& out, std::ostream& notes);

}  // namespace inspect
