#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "tools/collector/kinds.h"

namespace collector {

/// Takes one row: its texts, in the order of its kind's keys.
using RowSink = std::function<void(const Kind&, std::span<const std::string_view>)>;

/// Reads a batch document, handing over each row as soon as it is read; throws a Refusal (400)
/// at the first fault, naming its place, as in `Events[3]: key "EventName" is missing`.
///
/// The document is decoded in place and the texts point into it: no second copy is made.
void readBatch(std::string& document, const RowSink& sink);

}  // namespace collector
