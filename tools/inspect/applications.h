#pragma once

#include <filesystem>
#include <ostream>

#include "tools/inspect/arguments.h"

namespace inspect {

/// `name` where there is something of this name, or a path of several parts; otherwise the
/// documents directory of the application with this bundle identifier. Throws a ReadError when it
/// is neither.
std::filesystem::path directoryOf(const std::filesystem::path& name);

/// Lists the applications that have stores where the library puts them by default.
void listApplications(const Request& request, std::ostream& out, std::ostream& notes);

}  // namespace inspect
