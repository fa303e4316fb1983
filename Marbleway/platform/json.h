#pragma once

#include <optional>
#include <string>

#include "Marbleway/platform/value.h"

namespace marbleway::json {

/// Like `marbleway::toJSON`, without a copy.
std::optional<std::string> toJSON(const Dictionary& dictionary);

/// Like `marbleway::toJSON`, with line breaks and indentation.
std::optional<std::string> toPrettyJSON(const Value& value);

/// The shortest text that reads back as the same number: 5, 2.5, 1e+300.
std::string textOf(double number);

}  // namespace marbleway::json
