#include "Marbleway/core/configuration.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "Marbleway/core/diagnostics.h"
#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/platform.h"

namespace marbleway {
namespace {

constinit Guarded<std::shared_ptr<const Configuration>> configured;

bool isServerURL(std::string_view url) {
  const std::size_t scheme = url.starts_with("http://") ? 7 : url.starts_with("https://") ? 8 : 0;
  const bool isPlain = std::all_of(url.begin(), url.end(), [](char c) {
    return c > ' ' && c < 0x7F && c != '?' && c != '#' && c != '\\';
  });
  const std::size_t path = std::min(url.find('/', scheme), url.size());
  const std::string_view authority = url.substr(scheme, path - scheme);
  const std::string_view host = authority.substr(authority.rfind('@') + 1);  // all, without a '@'
  return scheme > 0 && isPlain && !host.empty() && host[0] != ':' &&
         url.substr(path).ends_with("/v2/");
}

void check(const char* member, const std::string& url) {
  if (isServerURL(url)) return;
  throw std::invalid_argument(
      std::string("Configuration::")
          .append(member)
          .append(R"( must be an http or https URL with a host and a path ending in "/v2/")"));
}

std::shared_ptr<const Configuration> withDefaults(Configuration configuration) {
  if (configuration.bundleIdentifier.empty()) {
    configuration.bundleIdentifier = platform::executableName();
  }
  if (configuration.appVersion.empty()) configuration.appVersion = "1.0";
  if (configuration.documentsDirectory.empty()) {
    configuration.documentsDirectory = platform::defaultDataDirectory() / "marbleway" /
                                       platform::pathFrom(configuration.bundleIdentifier);
  }
  return std::make_shared<const Configuration>(std::move(configuration));
}

}  // namespace

void configure(Configuration configuration) {
  check("developmentURL", configuration.developmentURL);
  check("testURL", configuration.testURL);
  check("productionURL", configuration.productionURL);
  auto complete = withDefaults(std::move(configuration));
  std::error_code error;
  (void)std::filesystem::absolute(complete->documentsDirectory, error);
  if (error) {
    throw std::invalid_argument(
        "Configuration::documentsDirectory is relative, and there is no working directory");
  }
  platform::setDocumentsDirectory(complete->documentsDirectory);
  configured.store(complete);
  diagnostics::configured(*complete);
}

std::shared_ptr<const Configuration> configuration() {
  if (auto given = configured.load()) return given;
  configure({});
  return configured.load();
}

}  // namespace marbleway
