#include "Marbleway/core/diagnostics.h"

#include <array>
#include <cstddef>
#include <string_view>
#include <utility>

#include "Marbleway/core/configuration.h"
#include "Marbleway/core/pending.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/settings_failure.h"

namespace marbleway {
namespace diagnostics {
namespace {

constinit thread_local const char* currentOperation = nullptr;
constinit thread_local std::string_view currentKey;
constinit thread_local bool isInHostFunction = false;

// The environment is read again in a race: a guard could be held for ever in a fork's child.
bool isPrinted() {
  static constinit std::atomic<int> isAsked{-1};  // not read yet
  if (isAsked < 0) isAsked = platform::environment("MARBLEWAY_DIAGNOSTICS") == "1" ? 1 : 0;
  return isAsked == 1;
}

void settingsFailed(std::string_view reason) noexcept {
  catchAll([&] {
    report({.kind = Diagnostic::Kind::settings,
            .isFailure = true,
            .outcome = "not written",
            .error = std::string(reason)});
  });
}

void post(Diagnostic diagnostic) {
  auto host = configuration();
  if (!host->diagnostics) return;
  platform::current()->mainLoop->post(
      [host = std::move(host), diagnostic = std::move(diagnostic), pending = Pending::begin()] {
        if (!pending->isCurrent()) return;
        isInHostFunction = true;
        catchAll([&] { host->diagnostics(diagnostic); });
        isInHostFunction = false;
      });
}

}  // namespace

bool readState() {
  State read = State::unread;
  state.compare_exchange_strong(read, isPrinted() ? State::on : State::off);
  if (state != State::on) return false;
  platform::settingsFailed = settingsFailed;
  return true;
}

void configured(const Configuration& configuration) {
  state = configuration.diagnostics || isPrinted() ? State::on : State::off;
}

void report(Diagnostic diagnostic) noexcept {
  if (!areOn() || isInHostFunction) return;
  catchAll([&] {
    diagnostic.time = platform::current()->clock->now();
    if (currentOperation != nullptr) {
      diagnostic.operation = currentOperation;
      diagnostic.key = currentKey;
    }
    if (isPrinted()) platform::systemConsole()->writeLine(lineOf(diagnostic));
    post(std::move(diagnostic));
  });
}

void refused(std::string_view reason) noexcept {
  if (!areOn()) return;
  catchAll([&] {
    report({.kind = Diagnostic::Kind::refusal, .isFailure = true, .outcome = std::string(reason)});
  });
}

Call::Call(const char* operation, const Text& key) {
  if (!areOn() || currentOperation != nullptr) return;
  isNamed_ = true;
  currentOperation = operation;
  currentKey = key.view();
}

void Call::leave() { currentOperation = nullptr; }

}  // namespace diagnostics

namespace {

std::string quoted(const std::string& text) { return toJSON(text).value_or(text); }

}  // namespace

const char* nameOf(Diagnostic::Kind kind) noexcept {
  constexpr std::array kNames{"handshake", "batch", "store", "settings", "crash", "refusal"};
  const auto index = static_cast<std::size_t>(kind);
  return index < kNames.size() ? kNames[index] : "";
}

std::string lineOf(const Diagnostic& diagnostic) {
  std::string line = "Marbleway Diagnostic: ";
  line.append(nameOf(diagnostic.kind)).append(": ").append(diagnostic.outcome);
  const auto add = [&](std::string_view word, std::string_view text) {
    line.append(", ").append(word).append(text);
  };
  const auto addNumber = [&](std::string_view word, auto number) {
    if (number != 0) add(word, std::to_string(number));
  };
  addNumber("status ", diagnostic.httpStatus);
  if (!diagnostic.error.empty()) add("", quoted(diagnostic.error));
  if (!diagnostic.url.empty()) add("", diagnostic.url);
  addNumber("rows ", diagnostic.rows);
  addNumber("bytes ", diagnostic.bytes);
  addNumber("milliseconds ", diagnostic.duration.count());
  if (!diagnostic.operation.empty()) add("", diagnostic.operation);
  if (!diagnostic.key.empty()) line.append(" ").append(quoted(diagnostic.key));
  return line;
}

}  // namespace marbleway
