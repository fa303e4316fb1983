#pragma once

#include <string_view>

#include "Marbleway/platform/status_bar.h"

namespace marbleway {

/// "Wifi", "2G", "3G", "4G" or "LTE", as the status bar shows it; "None" when it shows none, or
/// there is no status bar.
std::string_view connectionType(const platform::View* statusBar);

}  // namespace marbleway
