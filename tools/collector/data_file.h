#pragma once

#include <sqlite3.h>

#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

#include "tools/collector/kinds.h"

namespace collector {

/// How many rows a batch brought, and how many of them for the first time.
struct Tally {
  long long rows = 0, newRows = 0;
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
/// sent and TimesReceived, and the table Requests.
///
/// Nothing sent tells which device a row comes from. A row equal in every member to one that is
/// kept is taken for the same row, sent again: it is counted, not kept twice.
/// Thread: any; one batch at a time is written. Failures throw std::runtime_error.
class DataFile {
 public:
  class Batch;

  explicit DataFile(const std::string& path);

  /// Writes the request down; lost in silence, since its answer does not depend on it.
  void note(const Entry& entry) noexcept;

 private:
  struct Close {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Close>;

  /// What is done with a row of one kind: counted, when it is there already, or added.
  struct Statements {
    Statement countAgain, insert;
  };

  [[noreturn]] void fail() const;
  void execute(const std::string& sql);
  Statement prepare(const std::string& sql);
  void createTable(const Kind& kind);

  const std::string path_;
  std::unique_ptr<sqlite3, Close> database_;
  std::array<Statements, kKinds.size()> statements_;  // in the order of kKinds
  Statement note_;
  std::mutex mutex_;  // held by whoever uses the connection
};

/// One batch on its way into the file: all of it, on disk, once `commit` returns; else nothing.
class DataFile::Batch {
 public:
  explicit Batch(DataFile& file);
  ~Batch();
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  void keep(const Kind& kind, std::span<const std::string_view> texts);
  Tally commit();

 private:
  void run(const Statement& statement, std::span<const std::string_view> texts);

  DataFile& file_;
  std::scoped_lock<std::mutex> lock_;
  bool committed_ = false;
  Tally tally_;
};

}  // namespace collector
