#pragma once

#include <string>
#include <string_view>

namespace marbleway::platform {

/// The IANA name of the system's zone: from the system's ICU where there is one, else from a table;
/// "UTC" when neither knows it.
std::string timeZoneName();

/// The table's name for one of the system's zones, such as "W. Europe Standard Time"; empty when it
/// is not in it.
std::string_view knownTimeZone(std::wstring_view zone);

}  // namespace marbleway::platform
