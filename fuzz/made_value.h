#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include "Marbleway/platform/value.h"

namespace marbleway::fuzz {

/// Values of any kind, 20 levels deep at most, out of the fuzzer's bytes: texts of any bytes,
/// numbers of any bits.
Value madeValue(FuzzedDataProvider& bytes, int level = 0);
Dictionary madeDictionary(FuzzedDataProvider& bytes, int level = 0);

}  // namespace marbleway::fuzz
