#pragma once

#include "platform/value.h"

namespace marbleway {

/// Start-up; see `Marbleway::initMarbleway`.
void initMarbleway(const Text& projectToken, const Dictionary& options);

}  // namespace marbleway
