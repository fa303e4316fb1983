#pragma once

#include <windows.h>

namespace marbleway::platform {

/// For what is created: the user's alone, in folders whatever is created in them too. Null where
/// the system does not say who the user is: then access is as the folder's. Never torn down.
SECURITY_ATTRIBUTES* ownerOnly();

}  // namespace marbleway::platform
