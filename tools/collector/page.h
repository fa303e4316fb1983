#pragma once

#include <string>
#include <string_view>

namespace collector {

/// The file page.html as it was when the program was built.
std::string_view pageFile();

/// The page as sent: its first `<script>` and `<style>` carry `nonce`, which its security policy
/// asks for, so that nothing else in it is ever run.
std::string pageWith(const std::string& nonce);

/// Lets a page run what carries `nonce` and speak to its own server; nothing else.
std::string pagePolicy(const std::string& nonce);

/// A text that nobody guesses: 128 bits in hexadecimal digits.
std::string unguessable();

}  // namespace collector
