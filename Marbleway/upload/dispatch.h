#pragma once

#include <string_view>

#include "Marbleway/platform/http.h"
#include "Marbleway/store/schema.h"

namespace marbleway {

/// A POST to `path` under the server's base URL with the headers of every request; without the
/// token's header when the project has no token.
platform::HttpRequest requestTo(std::string_view path);

/// Posts a batch document to the server. A 200 deletes from each table the rows whose UTC date is
/// on or before that of the table's cut-off, on the HTTP client's thread; any other response, or
/// none, changes nothing.
void dispatchBatch(platform::Buffer document, CutOffs cutOffs);

}  // namespace marbleway
