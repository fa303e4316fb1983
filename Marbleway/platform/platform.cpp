#include "Marbleway/platform/platform.h"

#include <optional>
#include <tuple>
#include <utility>

#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/paths.h"

namespace marbleway::platform {
namespace {

using Set = std::shared_ptr<const Platform>;

/// The services that the library uses. Guarded by `guardedMutex`; a set that is replaced is
/// destroyed outside the lock, since a service may wait for a thread that takes the lock.
struct Services {
  Set overrides;  // what the host has installed; null: nothing
  Set defaults;   // this system's own; null until first needed
  Set effective;  // the overrides before the defaults; null while the defaults are
};
constinit NoDestructor<Services> services;

constexpr std::tuple kMembers{
    &Platform::console,        &Platform::clock,         &Platform::mainLoop,
    &Platform::httpClient,     &Platform::userDefaults,  &Platform::device,
    &Platform::statusBar,      &Platform::userInterface, &Platform::locationService,
    &Platform::networkCapture, &Platform::crashHook,
};

/// `base`, with what `replacement` holds in its place. Either may be null.
Set merged(const Set& base, const Set& replacement) {
  auto set = base ? *base : Platform{};
  const auto replace = [&](auto service) {
    if (replacement && (*replacement).*service) set.*service = (*replacement).*service;
  };
  std::apply([&](auto... service) { (replace(service), ...); }, kMembers);
  return std::make_shared<const Platform>(std::move(set));
}

}  // namespace

void install(Platform replacement) {
  const auto added = std::make_shared<const Platform>(std::move(replacement));
  Services former;  // destroyed after the lock is released
  const std::scoped_lock lock(guardedMutex);
  former = services.value;
  services.value.overrides = merged(former.overrides, added);
  if (former.defaults) services.value.effective = merged(former.defaults, services.value.overrides);
}

std::shared_ptr<const Platform> current() {
  {
    const std::scoped_lock lock(guardedMutex);
    if (services.value.effective) return services.value.effective;
  }
  const auto defaults = std::make_shared<const Platform>(makePlatform());
  const std::scoped_lock lock(guardedMutex);
  if (!services.value.effective) {
    services.value.effective = merged(defaults, services.value.overrides);
    services.value.defaults = defaults;
  }
  return services.value.effective;
}

std::shared_ptr<Console> systemConsole() {
  (void)current();  // makes the defaults
  const std::scoped_lock lock(guardedMutex);
  return services.value.defaults->console;
}

namespace {
constinit Guarded<std::optional<std::string>> chosenDocuments, defaultDocuments;
}

std::string documentsDirectory() {
  if (auto chosen = chosenDocuments.load()) return std::move(*chosen);
  if (auto usual = defaultDocuments.load()) return std::move(*usual);
  std::string usual =
      utf8Of(absolutePath(defaultDataDirectory() / "marbleway" / pathFrom(executableName())));
  defaultDocuments.store(usual);  // a later change of the environment changes nothing
  return usual;
}

void setDocumentsDirectory(const std::filesystem::path& directory) {
  if (directory.empty()) return chosenDocuments.store(std::nullopt);
  auto absolute = absolutePath(directory);
  if (!absolute.has_filename()) absolute = absolute.parent_path();  // a "/" at the end
  chosenDocuments.store(utf8Of(absolute));
}

}  // namespace marbleway::platform
