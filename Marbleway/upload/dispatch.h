#pragma once

#include <string_view>

#include "Marbleway/store/schema.h"
#include "platform/http.h"

namespace marbleway {

/// A POST to `path` under the server's base URL with the headers of every request; without the
/// token's header when the project has no token.
platform::HttpRequest requestTo(std::string_view path);

/// Posts a batch document to the server. A 200 deletes from each table the rows whose UTC date is
/// on or before that of the table's time in `times`, on the HTTP client's thread; any other answer,
/// or none, changes nothing.
void dispatchBatch(platform::Buffer document, BatchTimes times);

}  // namespace marbleway
