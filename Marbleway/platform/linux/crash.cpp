#include "Marbleway/platform/linux/crash.h"

#include <cxxabi.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <typeinfo>

#include "Marbleway/platform/call_stack.h"
#include "Marbleway/platform/linux/recoverable.h"

namespace marbleway::platform {
namespace {

std::string reasonOf(const std::exception& exception) {
  std::string reason;
  // An exception that gets out of what() calls std::terminate.
  const bool isKnown = runRecoverably([&] { reason = exception.what(); });
  return isKnown ? reason : "what() failed";
}

/// The type of the exception that is being handled.
std::string currentType() { return demangled(abi::__cxa_current_exception_type()->name()); }

std::string descriptionOf(const std::exception_ptr& exception) {
  if (!exception) return "std::terminate: no exception";
  try {
    std::rethrow_exception(exception);
  } catch (const std::exception& known) {
    return currentType().append(": ").append(reasonOf(known));
  } catch (...) {
    return currentType().append(": not a std::exception");
  }
}

std::string descriptionOf(const Cause& cause) {
  if (cause.signal == 0) return descriptionOf(cause.exception);
  std::string text = "Signal " + std::to_string(cause.signal);
  text.append(" (SIG").append(sigabbrev_np(cause.signal)).append("): ");
  text.append(sigdescr_np(cause.signal));
  // A signal that was sent has no address, nor has one that the kernel knows no more about.
  const bool hasAddress = cause.code > 0 && cause.code != SI_KERNEL;
  if (!hasAddress) return text;
  return text.append(" at address ")
      .append(hexadecimal(reinterpret_cast<std::uintptr_t>(cause.address)));
}

}  // namespace

Failure failureOf(const Crash& crash) {
  Failure failure{descriptionOf(crash.cause), {}};
  for (std::size_t i = 0; i < crash.depth; ++i) {
    const bool hasFailed = i == 0 && crash.cause.signal != 0;
    const auto kind = hasFailed ? AddressKind::faultAddress : AddressKind::returnAddress;
    const auto address = reinterpret_cast<std::uintptr_t>(crash.frames.at(i));
    if (i > 0) failure.callStack.append("\n");
    failure.callStack.append(frameLine(i, address, kind));
  }
  return failure;
}

}  // namespace marbleway::platform
