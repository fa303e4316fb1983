#pragma once

#include <string>
#include <string_view>

namespace collector {

/// The files of page/ in one, as they were when the program was built.
std::string_view pageFile();

/// The page as sent: its first `<script>` and `<style>` have `nonce`, which its security policy
/// demands, so that nothing else in it runs.
std::string pageWith(const std::string& nonce);

/// Allows a page to run what has `nonce` and to talk to its own server; nothing else.
std::string pagePolicy(const std::string& nonce);

/// 128 random bits in hexadecimal digits.
std::string randomToken();

}  // namespace collector
