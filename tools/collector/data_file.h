#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "tools/collector/database.h"
#include "tools/collector/kinds.h"

namespace collector {

/// How many rows a batch brought, and how many of them for the first time.
struct Tally {
  long long rows = 0, newRows = 0;
  std::array<long long, kKinds.size()> counts{};  // of the rows, in the order of kKinds
};

/// Where a batch comes from.
struct Origin {
  std::string token;     // of its project
  long long number = 0;  // the batch's own
};

/// What became of one request.
struct Entry {
  std::string method, path;
  int status = 200;
  std::size_t bytes = 0;  // of its body
  Tally tally;            // of a batch that was kept
  std::string what;       // what arrived, or the first fault
};

/// The SQLite file in which everything that arrives is kept: a table a kind, with a row's texts as
/// sent and TimesReceived; the table Arrivals, with one line each time that a row arrives, in that
/// order; and the table Requests.
///
/// A row equal in every member to one that is kept is taken for the same row, sent again: it is
/// counted, not kept twice.
/// Thread: any; one batch at a time is written. Failures throw std::runtime_error.
class DataFile {
 public:
  class Batch;

  explicit DataFile(const std::string& path);

  const std::string& path() const { return path_; }

  /// Writes the request down; lost in silence, since its answer does not depend on it.
  void note(const Entry& entry) noexcept;

  /// Drops all that is kept. Arrivals are numbered on from where they were.
  void forget();

  /// The greatest number of a batch that brought a row.
  long long lastBatch();

 private:
  /// What is done with a row of one kind: counted, when it is there already, or added.
  struct Statements {
    Statement countAgain, insert, markGaps;
  };

  void createTable(const Kind& kind);

  const std::string path_;
  Database database_;
  std::array<Statements, kKinds.size()> statements_;  // in the order of kKinds
  Statement note_, arrive_;
  std::mutex mutex_;  // held by whoever uses the connection
};

/// One batch on its way into the file: all of it, on disk, once `commit` returns; else nothing.
class DataFile::Batch {
 public:
  Batch(DataFile& file, Origin origin);
  ~Batch();
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  void keep(const Kind& kind, std::span<const std::string_view> texts);
  Tally commit();

 private:
  /// The rowid of the row in its kind's table, and whether it was there before.
  std::pair<long long, bool> place(const Kind& kind, std::span<const std::string_view> texts);

  DataFile& file_;
  std::scoped_lock<std::mutex> mutex_;
  const Origin origin_;
  const long long received_;  // milliseconds since 1970, UTC
  bool committed_ = false;
  Tally tally_;
};

}  // namespace collector
