#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace collector {

/// Why a request is refused: the status of its answer and the first thing that is wrong with it.
struct Refusal : std::runtime_error {
  Refusal(int code, const std::string& fault) : std::runtime_error(fault), status(code) {}
  int status;
};

/// What a client sent, fit for a line of its own: ASCII, without control characters ('?' stands
/// for any other byte), at most 80 characters.
std::string printable(std::string_view sent);

/// The same between double quotes.
std::string quoted(std::string_view sent);

}  // namespace collector
