#pragma once

#include <string_view>

// The three kinds of line. None is written while logging is off; callers need no check. A warning
// and an error are refusals of a call or of a value, and so diagnostics too.
namespace marbleway::console {

/// "Marbleway Warning: ", then `text`.
void warning(std::string_view text);
/// "Marbleway Warning: ", then the reason, ", Could Not " and the action.
void refusal(std::string_view reason, std::string_view action);
/// "Marbleway Error: ", then `text`.
void error(std::string_view text);
/// "Marbleway Message: ", then `text`.
void message(std::string_view text);

}  // namespace marbleway::console
