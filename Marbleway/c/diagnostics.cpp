#include "Marbleway/c/diagnostics.h"

#include <chrono>
#include <optional>
#include <utility>

namespace marbleway::c {
namespace {

Value valueOf(const std::optional<Diagnostic>& diagnostic) {
  return diagnostic ? Value(dictionaryOf(*diagnostic)) : Value();
}

Array arrayOf(const std::vector<PendingRows>& pending) {
  Array tables;
  for (const auto& [table, rows, bytes] : pending) {
    tables.push_back(Dictionary{{"table", table}, {"rows", rows}, {"bytes", bytes}});
  }
  return tables;
}

}  // namespace

Dictionary dictionaryOf(const Diagnostic& diagnostic) {
  const std::chrono::duration<double> time = diagnostic.time.time_since_epoch();
  return {{"kind", nameOf(diagnostic.kind)},
          {"isFailure", diagnostic.isFailure},
          {"outcome", diagnostic.outcome},
          {"error", diagnostic.error},
          {"httpStatus", diagnostic.httpStatus},
          {"url", diagnostic.url},
          {"rows", diagnostic.rows},
          {"bytes", diagnostic.bytes},
          {"milliseconds", diagnostic.duration.count()},
          {"operation", diagnostic.operation},
          {"key", diagnostic.key},
          {"time", time.count()},
          {"line", lineOf(diagnostic)}};
}

Dictionary dictionaryOf(const Status& status) {
  return {{"isStarted", status.isStarted},     {"isRefused", status.isRefused},
          {"isConnected", status.isConnected}, {"isPrivate", status.isPrivate},
          {"isTracking", status.isTracking},   {"isUploading", status.isUploading},
          {"session", status.session},         {"handshake", valueOf(status.handshake)},
          {"batch", valueOf(status.batch)},    {"pending", arrayOf(status.pending)}};
}

}  // namespace marbleway::c
