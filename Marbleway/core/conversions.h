#pragma once

#include <cstdint>

#include "Marbleway/platform/value.h"

// Conversions of a value of any kind. A null pointer is an absent value. Absent values, null,
// arrays and dictionaries give false and 0.
namespace marbleway {

/// Numbers: true unless 0. Text: leading blanks, a sign and zeros are skipped; then Y, y, T, t and
/// 1 to 9 are true.
bool toBool(const Value* value);

/// Text: the longest number at its start, after blanks, else 0; infinite beyond a double's range.
double toDouble(const Value* value);

/// `toDouble`, truncated; the nearest 64-bit integer where it is out of range.
std::int64_t toInteger(const Value* value);

/// `toDouble` in 32 bits; infinite where it is out of range.
float toFloat(const Value* value);

}  // namespace marbleway
