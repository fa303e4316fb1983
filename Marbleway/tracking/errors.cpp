#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "Marbleway/session/session.h"
#include "Marbleway/startup/console.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/guard.h"
#include "Marbleway/tracking/operations.h"
#include "platform/call_stack.h"
#include "platform/json.h"

namespace marbleway {
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

ErrorReport reportOf(const std::exception& exception, const void* caller) {
  ErrorReport report;
  report.name = platform::demangled(typeid(exception).name());
  report.reason = Text(exception.what()).copy();  // a null one is absent
  report.callStackReturnAddresses = platform::returnAddresses(caller);
  report.callStackSymbols = platform::symbolsOf(*report.callStackReturnAddresses);
  return report;
}

void insertError(const Text& name, const Text& message, const std::optional<ErrorReport>& report) {
  updateSessionTimeout();
  const std::string timeStamp = getUTCTimeStamp();
  if (report) {
    insertRow(
        "insert into mrbw_v2_errors (id, SessionID, ErrorName, ErrorMessage, ErrorDetails, UTCTimeStamp) VALUES (?, ?, ?, ?, ?, ?)",
        {sessionID.load(), name, message, json::toJSON(detailsOf(*report)), timeStamp});
  }
  console::message("Error Tracked");  // without a report too
}

}  // namespace

void logError(const Text& errorName, const Text& errorMessage,
              const std::optional<ErrorReport>& exception) {
  if (admits(guards::logError)) insertError(errorName, errorMessage, exception);
}

void logError(const Text& errorName, const Text& errorMessage, const std::exception& exception,
              const void* caller) {
  if (!admits(guards::logError)) return;
  insertError(errorName, errorMessage, reportOf(exception, caller));
}

}  // namespace marbleway
