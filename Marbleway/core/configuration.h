#pragma once

#include <memory>

#include "Marbleway/Host.h"

namespace marbleway {

/// What the host configured, every default filled in. Thread: any.
std::shared_ptr<const Configuration> configuration();

}  // namespace marbleway
