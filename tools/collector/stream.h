#pragma once

#include <httplib.h>

#include <memory>
#include <string>
#include <string_view>

#include "tools/collector/records.h"
#include "tools/collector/rows.h"

namespace collector {

/// Server-sent events for one page: what is new since the last time, read from the records. Nothing
/// is queued for a page, so a slow one delays only itself.
class Stream {
 public:
  /// Rows are sent from the one after number `after` on, which a page has of an earlier stream; all
  /// else from now on. If there is no such number yet, the page has seen another data file: it is
  /// sent a reset and every row. The stream owns `slot`.
  Stream(Records& records, long long after, std::shared_ptr<void> slot);

  /// Sends what is new, or, after five seconds without, a comment; returns false when the page has
  /// left.
  bool send(httplib::DataSink& sink);

 private:
  std::string newEvents();
  void addRows(std::string& events);
  void addExchanges(std::string& events, std::string_view name, const Journal& journal,
                    long long& cursor, void (*putOne)(tools::JsonWriter&, const Exchange&));

  Records& records_;
  RowReader rows_;
  const Filter all_;
  long long row_, batch_, handshake_, change_, reset_;  // the last ones sent
  bool hasMore_ = false;  // there were more rows than one message takes
  const std::shared_ptr<void> slot_;
};

/// The rows that a filter admits, from the oldest on, as one text in pieces.
class Export {
 public:
  enum class Format { ndjson, csv };

  Export(const std::string& path, Filter filter, Format format, std::shared_ptr<void> slot);

  /// Sends the next piece; returns false when the client has left.
  bool send(httplib::DataSink& sink);

 private:
  std::string piece(const std::vector<Row>& rows) const;

  RowReader rows_;
  const Filter filter_;
  const Format format_;
  Range range_;
  const std::shared_ptr<void> slot_;
};

}  // namespace collector
