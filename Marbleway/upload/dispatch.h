#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "Marbleway/Host.h"
#include "Marbleway/platform/http.h"
#include "Marbleway/store/schema.h"

namespace marbleway {

/// A POST to `path` under the server's base URL with the headers of every request. Without a
/// project token it has no header for one.
platform::HttpRequest requestTo(std::string_view path);

/// Posts `request` as `HttpClient::post` does. Before `done` runs, its outcome is reported and
/// stored as the latest of `kind`. `rows` is how many it has.
void post(platform::HttpRequest request, Diagnostic::Kind kind, std::size_t rows,
          std::function<void(std::optional<platform::HttpResponse>)> done);

/// One of the at most four batches in flight, from before its rows are read until its response has
/// been applied.
class BatchSlot {
 public:
  /// Takes a slot where one is free.
  BatchSlot();
  BatchSlot(const BatchSlot&) = delete;
  BatchSlot& operator=(const BatchSlot&) = delete;
  ~BatchSlot();

  bool isTaken() const { return isTaken_; }

  /// In the child of a fork, which has none of its parent's batches in flight.
  static void reset() noexcept;

 private:
  bool isTaken_;
};

/// Posts a batch document to the server. A 200 deletes from each table the rows whose UTC date is
/// on or before that of the table's cut-off, on the HTTP client's thread. Any other response, or
/// none, changes nothing.
void dispatchBatch(platform::Buffer document, std::size_t rows, CutOffs cutOffs,
                   std::shared_ptr<const BatchSlot> slot);

}  // namespace marbleway
