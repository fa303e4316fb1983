#pragma once

#include <cstdint>

#include "Marbleway/platform/value.h"

// How a value of unknown kind is read. A null pointer is a value that is not there; it reads as
// false and 0, as do null, arrays and dictionaries.
namespace marbleway {

/// Numbers: true unless 0. Text: leading blanks, a sign and zeros are skipped; then Y, y, T, t and
/// 1 to 9 are true.
bool toBool(const Value* value);

/// Text: the longest number at its start, after blanks, else 0.
double toDouble(const Value* value);

/// The real reading, truncated; the nearest integer where it lies beyond 64 bits.
std::int64_t toInteger(const Value* value);

/// The real reading in 32 bits; infinite where it lies beyond them.
float toFloat(const Value* value);

}  // namespace marbleway
