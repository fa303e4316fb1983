#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/collector/kinds.h"
#include "tools/common/database.h"

namespace collector {

/// How many rows a batch brought, and how many of them for the first time.
struct Tally {
  long long rows = 0, newRows = 0;
  std::array<long long, kKinds.size()> counts{};  // of the rows, in the order of kKinds
};

/// The origin of a batch.
struct Origin {
  std::string token;     // of its project
  long long number = 0;  // the batch's own
};

/// A request with its outcome.
struct Entry {
  std::string method, path;
  int status = 200;
  std::size_t bytes = 0;  // of its body
  Tally tally;            // of a batch that was stored
  std::string what;       // what arrived, or the first fault
};

/// The SQLite file of all that arrives, made with mode 0600: a table a kind, with a row's texts as
/// sent and TimesReceived; the table Arrivals, with one line each time that a row arrives, batch by
/// batch and within one by the device's time; and the table Requests.
///
/// A row equal in every member to a stored one is the same row, sent again: it is counted, not
/// stored twice.
/// Thread: any; one batch at a time is written. Failures throw std::runtime_error.
class DataFile {
 public:
  class Batch;

  explicit DataFile(const std::string& path);

  const std::string& path() const { return path_; }

  /// Writes the request to the log table; a failure is ignored, since the answer does not depend on
  /// it.
  void logRequest(const Entry& entry) noexcept;

  /// Deletes all rows. The numbers of arrivals continue.
  void clear();

  /// The greatest number of a batch that brought a row.
  long long lastBatch();

 private:
  /// What is done with a row of one kind: counted, when it is there already, or added.
  struct Statements {
    tools::Statement countAgain, insert, markGaps;
  };

  void createTable(const Kind& kind);

  const std::string path_;
  tools::Database database_;
  std::array<Statements, kKinds.size()> statements_;  // in the order of kKinds
  tools::Statement logRequest_, insertArrival_;
  std::mutex mutex_;  // guards the connection
};

/// One batch: all of its rows are on disk once `commit` returns, else none.
class DataFile::Batch {
 public:
  Batch(DataFile& file, Origin origin);
  ~Batch();
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  /// The texts must live until the commit.
  void add(const Kind& kind, std::span<const std::string_view> texts);
  Tally commit();

 private:
  struct Arrival {
    const Kind* kind;
    std::string_view time, session;
    long long row;  // the rowid in its kind's table
    bool isNew;
  };

  void insertArrivals();
  /// The rowid of the row in its kind's table, and whether it was there before.
  std::pair<long long, bool> insertOrCount(const Kind& kind,
                                           std::span<const std::string_view> texts);

  DataFile& file_;
  std::scoped_lock<std::mutex> mutex_;
  const Origin origin_;
  const long long received_;  // milliseconds since 1970, UTC
  bool committed_ = false;
  Tally tally_;
  std::vector<Arrival> arrivals_;
};

}  // namespace collector
