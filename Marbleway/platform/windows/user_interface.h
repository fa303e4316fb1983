#pragma once

#include <memory>
#include <string_view>

#include "Marbleway/platform/user_interface.h"

namespace marbleway::platform {

/// Links are opened by the shell, alerts are message boxes; each on a thread of its own. There is
/// no badge.
std::shared_ptr<UserInterface> makeWindowsInterface();

/// True for an absolute URL with "//" whose scheme neither names a file nor runs a script, and for
/// addresses of mail and telephone.
bool isOpenable(std::string_view url);

}  // namespace marbleway::platform
