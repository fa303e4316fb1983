#pragma once

#include <stdexcept>
#include <string>

#include "tools/common/json_text.h"
#include "tools/common/text.h"

namespace collector {

using tools::inQuotes;

/// Why a request is refused: the status of its answer and the first thing that is wrong with it.
struct Refusal : std::runtime_error {
  Refusal(int code, const std::string& fault) : std::runtime_error(fault), status(code) {}
  int status;
};

/// A refusal that was asked for, though nothing is wrong with the request.
struct AskedRefusal : Refusal {
  explicit AskedRefusal(int code) : Refusal(code, "refused as asked") {}
};

/// The body of every answer to what is refused.
inline std::string errorBody(const std::string& fault) {
  return tools::jsonText([&](tools::JsonWriter& writer) {
    writer.StartObject();
    tools::member(writer, "error", fault);
    writer.EndObject();
  });
}

}  // namespace collector
