#pragma once

#include <string>
#include <string_view>

namespace marbleway::platform {

/// The value of the header "Authorization" for a user and a password as a URL has them: in UTF-8,
/// what is no plain character as "%41".
std::string basicCredentials(std::string_view user, std::string_view password);

}  // namespace marbleway::platform
