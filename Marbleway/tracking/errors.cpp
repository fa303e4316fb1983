#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/guards.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/call_stack.h"
#include "Marbleway/platform/json.h"
#include "Marbleway/session/session.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"

using namespace marbleway;

namespace {

template <class Elements>
Array arrayOf(const Elements& elements) {
  Array array;
  for (const auto& element : elements) array.push_back(element);
  return array;
}

Dictionary detailsOf(const ErrorReport& report) {
  Dictionary details;
  if (report.name) details.set("ExceptionName", *report.name);
  if (report.reason) details.set("ExceptionReason", *report.reason);
  if (report.callStackReturnAddresses) {
    details.set("ExceptionCallStackReturnAddresses", arrayOf(*report.callStackReturnAddresses));
  }
  if (report.callStackSymbols) {
    details.set("ExceptionCallStackSymbols", arrayOf(*report.callStackSymbols));
  }
  if (report.userInfo) details.set("ExceptionUserInfo", *report.userInfo);
  return details;
}

// The report of an exception of the mangled type `type`; `reason` may be null.
ErrorReport reportOf(const char* type, const char* reason, const void* caller) {
  ErrorReport report;
  report.name = platform::demangled(type);
  report.reason = Text(reason).copy();
  report.callStackReturnAddresses = platform::returnAddresses(caller);
  report.callStackSymbols = platform::symbolsOf(*report.callStackReturnAddresses);
  return report;
}

// `report` is called only after the guard has passed.
template <class Report>
void track(const Text& name, const Text& message, Report report) {
  const auto session = admittedSession(guards::logError);
  if (!session) return;
  updateSessionTimeout();
  const std::string timeStamp = getUTCTimeStamp();
  if (const std::optional<ErrorReport> exception = report()) {
    insertRow(
        "insert into mrbw_v2_errors (id, SessionID, ErrorName, ErrorMessage, ErrorDetails, UTCTimeStamp) VALUES (?, ?, ?, ?, ?, ?)",
        {session, name, message, json::toJSON(detailsOf(*exception)), timeStamp});
  }
  console::message("Error Tracked");  // without a report too
}

}  // namespace

void Marbleway::logError(Text errorName, Text errorMessage,
                         const std::optional<ErrorReport>& exception) noexcept {
  operation(guards::logError, errorName,
            [&] { track(errorName, errorMessage, [&] { return exception; }); });
}

void Marbleway::logError(Text errorName, Text errorMessage,
                         const std::exception& exception) noexcept {
  const void* caller = __builtin_return_address(0);
  operation(guards::logError, errorName, [&] {
    track(errorName, errorMessage,
          [&] { return reportOf(typeid(exception).name(), exception.what(), caller); });
  });
}

namespace marbleway {

ErrorReport reportOf(const std::exception_ptr& exception) {
  if (!exception) return {};
  const void* caller = __builtin_return_address(0);
  try {
    std::rethrow_exception(exception);
  } catch (const std::exception& known) {
    return ::reportOf(typeid(known).name(), known.what(), caller);
  } catch (...) {
    return ::reportOf(platform::currentExceptionType(), nullptr, caller);
  }
}

}  // namespace marbleway
