#include "platform/platform.h"

#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/fork.h"
#include "platform/guarded.h"
#include "platform/paths.h"
#include "platform/quietly.h"

namespace marbleway::platform {
namespace {

using Services = std::shared_ptr<const Platform>;

/// Who serves the library. Behind `guardedLock`; what is dropped is destroyed outside it, since a
/// service may wait for a thread that wants the lock.
struct InPlace {
  Services host;     // what the host has installed; null: nothing
  Services own;      // this system's own; null until first needed
  Services inForce;  // the host's before this system's own; null while that is
};
constinit Lasting<InPlace> inPlace;

constexpr std::tuple kServices{
    &Platform::console,        &Platform::clock,         &Platform::mainLoop,
    &Platform::httpClient,     &Platform::userDefaults,  &Platform::device,
    &Platform::statusBar,      &Platform::userInterface, &Platform::locationService,
    &Platform::networkCapture, &Platform::crashHook,
};

/// `base`, with what `replacement` holds in its place. Either may be null.
Services merged(const Services& base, const Services& replacement) {
  auto services = base ? *base : Platform{};
  const auto replace = [&](auto service) {
    if (replacement && (*replacement).*service) services.*service = (*replacement).*service;
  };
  std::apply([&](auto... service) { (replace(service), ...); }, kServices);
  return std::make_shared<const Platform>(std::move(services));
}

}  // namespace

void install(Platform replacement) {
  const auto added = std::make_shared<const Platform>(std::move(replacement));
  InPlace former;  // destroyed after the lock is released
  const std::scoped_lock lock(guardedLock);
  former = inPlace.value;
  inPlace.value.host = merged(former.host, added);
  if (former.own) inPlace.value.inForce = merged(former.own, inPlace.value.host);
}

std::shared_ptr<const Platform> current() {
  {
    const std::scoped_lock lock(guardedLock);
    if (inPlace.value.inForce) return inPlace.value.inForce;
  }
  const auto own = std::make_shared<const Platform>(makePlatform());
  const std::scoped_lock lock(guardedLock);
  if (!inPlace.value.inForce) {
    inPlace.value.inForce = merged(own, inPlace.value.host);
    inPlace.value.own = own;
  }
  return inPlace.value.inForce;
}

void abandonOwnServices() noexcept {
  static constinit Lasting<std::vector<Services>> abandoned;  // in reach of leak checkers
  auto& own = inPlace.value.own;
  auto& inForce = inPlace.value.inForce;
  quietly([&] { abandoned.value.insert(abandoned.value.end(), {own, inForce}); });
  // Built anew rather than assigned, since assignment would destroy what was there.
  std::construct_at(&own);
  std::construct_at(&inForce);
}

namespace {
constinit Guarded<std::optional<std::string>> chosenDocuments, usualDocuments;
}

std::string documentsDirectory() {
  if (auto chosen = chosenDocuments.load()) return std::move(*chosen);
  if (auto usual = usualDocuments.load()) return std::move(*usual);
  std::string usual = defaultDataDirectory() / "marbleway" / executableName();
  usualDocuments.store(usual);  // a later change of the environment changes nothing
  return usual;
}

void setDocumentsDirectory(const std::filesystem::path& directory) {
  if (directory.empty()) return chosenDocuments.store(std::nullopt);
  chosenDocuments.store(std::filesystem::absolute(directory));
}

}  // namespace marbleway::platform
