#pragma once

#include <optional>
#include <string>

#include "Marbleway/platform/value.h"

namespace marbleway::json {

/// Like `marbleway::toJSON`, without a copy of the dictionary.
std::optional<std::string> toJSON(const Dictionary& dictionary);

/// Like `marbleway::toJSON`, with line breaks and indentation.
std::optional<std::string> toPrettyJSON(const Value& value);

/// The form of ECMAScript's number-to-string: the shortest digits that read back as the same
/// number, without an exponent from 1e-6 up to below 1e21. 5, 2.5, 100000, 1e-7, 1e+21; -0 is "0".
/// "NaN", "Infinity" and "-Infinity" for what is not finite.
std::string textOf(double number);

}  // namespace marbleway::json
