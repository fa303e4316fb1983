#pragma once

#include "Marbleway/Host.h"
#include "Marbleway/platform/value.h"

namespace marbleway::c {

/// The members of a diagnostic, and "line".
Dictionary dictionaryOf(const Diagnostic& diagnostic);
/// The members of the status; what is absent in it is null.
Dictionary dictionaryOf(const Status& status);

}  // namespace marbleway::c
