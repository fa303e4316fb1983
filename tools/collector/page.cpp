#include "tools/collector/page.h"

#include <array>
#include <random>

namespace collector {

std::string pageWith(const std::string& nonce) {
  constexpr std::array<std::string_view, 2> kTags{"<script>", "<style>"};
  std::string page(pageFile());
  for (const std::string_view tag : kTags) {
    const auto at = page.find(tag);
    if (at == page.npos) continue;
    page.insert(at + tag.size() - 1, std::string(" nonce=\"").append(nonce).append("\""));
  }
  return page;
}

std::string pagePolicy(const std::string& nonce) {
  return "default-src 'none'; script-src 'nonce-" + nonce + "'; style-src 'nonce-" + nonce +
         "'; connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; " +
         "frame-ancestors 'none'";
}

std::string randomToken() {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::random_device source;
  std::string text;
  while (text.size() < 32) text += kDigits[source() % kDigits.size()];
  return text;
}

}  // namespace collector
