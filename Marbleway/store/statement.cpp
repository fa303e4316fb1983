#include "Marbleway/store/statement.h"

#include <sqlite3.h>

#include <atomic>
#include <condition_variable>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "Marbleway/core/diagnostics.h"
#include "Marbleway/platform/busy_budget.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/utf8.h"
#include "Marbleway/store/file_system.h"

namespace marbleway {
namespace {

using std::chrono::steady_clock;

constexpr int kPieceBytes = 64 * 1024;

constinit std::atomic<int> waitingFiles{0};  // connections that have had to wait

/// The open connections of this process.
struct Connections {
  std::mutex mutex;
  std::condition_variable changed;
  int open = 0;
  bool isPrepared = false;
  bool areSerial = false;            // SQLite has no mutexes: one connection at a time
  std::list<std::thread::id> queue;  // of the threads that wait for it
};

Connections& connections() {
  static NoDestructor<Connections> all;
  return all.value;
}

// A host may have configured SQLite for one thread; then no connection has a mutex.
bool hasNoMutexes() {
  sqlite3* probe = nullptr;
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_MEMORY | SQLITE_OPEN_FULLMUTEX;
  const int result = sqlite3_open_v2(":memory:", &probe, kFlags, kStoreFileSystem);
  const bool isMissing = result != SQLITE_OK || sqlite3_db_mutex(probe) == nullptr;
  sqlite3_close(probe);
  return isMissing;
}

// In order of arrival: without it, a thread that closes and opens at once would always be first.
bool waitInQueue(Connections& all, std::unique_lock<std::mutex>& lock) {
  const auto place = all.queue.insert(all.queue.end(), std::this_thread::get_id());
  const auto isNext = [&] { return all.open == 0 && place == all.queue.begin(); };
  const auto sleep = [&](auto interval) { all.changed.wait_for(lock, interval, isNext); };
  while (!isNext() && BusyBudget::wait(sleep)) {
  }
  const bool isAlone = isNext();
  all.queue.erase(place);
  return isAlone;
}

// False when another connection was not closed in time.
bool countConnection() {
  Connections& all = connections();
  std::unique_lock lock(all.mutex);
  if (!all.isPrepared) {
    registerStoreFileSystem();
    all.areSerial = hasNoMutexes();
    all.isPrepared = true;
  }
  const bool mayOpen = !all.areSerial || waitInQueue(all, lock);
  if (mayOpen) ++all.open;
  return mayOpen;
}

void uncountConnection() {
  Connections& all = connections();
  const std::scoped_lock lock(all.mutex);
  --all.open;
  if (all.areSerial) all.changed.notify_all();
}

}  // namespace

void unregisterStores() noexcept {
  const platform::ForkSection section;
  const std::scoped_lock lock(connections().mutex);
  if (connections().open > 0 || !connections().isPrepared) return;
  unregisterStoreFileSystem();
  connections().isPrepared = false;
}

StoreFile::StoreFile(const std::string& path, std::chrono::milliseconds limit)
    : limit_(limit), isCounted_(platform::mayRecord() && countConnection()) {
  if (!isCounted_) return;
  // A waiting thread tries once in a millisecond; without this pause a thread that closes and
  // opens at once would always be first.
  if (waitingFiles > 0) sqlite3_sleep(BusyBudget::kRetryInterval.count());
  // One thread uses the connection, so it needs no mutex of its own.
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
  openResult_ = sqlite3_open_v2(path.c_str(), &connection_, kFlags, kStoreFileSystem);
  if (openResult_ != SQLITE_OK) {
    sqlite3_close(std::exchange(connection_, nullptr));
    return;
  }
  sqlite3_busy_handler(connection_, &StoreFile::busyHandler, this);
  if (limit_ == kUnlimited) return;
  constexpr int kInstructions = 1000;  // some 50 µs
  deadline_ = steady_clock::now() + limit_;
  sqlite3_progress_handler(connection_, kInstructions, &StoreFile::isOverdue, this);
}

StoreFile::~StoreFile() {
  sqlite3_close(connection_);
  if (isWaiting_) --waitingFiles;
  if (isCounted_) uncountConnection();
}

// Constant intervals: with SQLite's own, growing ones, eight busy threads starve each other.
int StoreFile::busyHandler(void* file, int /*calls*/) {
  auto& self = *static_cast<StoreFile*>(file);
  if (!std::exchange(self.isWaiting_, true)) ++waitingFiles;
  const bool mayRetry =
      BusyBudget::wait([](auto interval) { sqlite3_sleep(static_cast<int>(interval.count())); });
  if (self.limit_ != kUnlimited) self.deadline_ = steady_clock::now() + self.limit_;
  return mayRetry ? 1 : 0;
}

int StoreFile::isOverdue(void* file) {
  return steady_clock::now() > static_cast<StoreFile*>(file)->deadline_ ? 1 : 0;
}

void StoreFile::pauseForOthers(int minIntervals) {
  constexpr int kMaxIntervals = 50;
  for (int i = 0; i < minIntervals || (waitingFiles > 0 && i < kMaxIntervals); ++i) {
    sqlite3_sleep(BusyBudget::kRetryInterval.count());
  }
}

bool StoreFile::execute(const char* sql) {
  return connection_ != nullptr &&
         sqlite3_exec(connection_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool StoreFile::isBusy() const {
  return connection_ != nullptr ? sqlite3_errcode(connection_) == SQLITE_BUSY : !isCounted_;
}

Statement::Statement(const std::string& path, const char* sql, Journal journal)
    : file_(path, StoreFile::kUnlimited), sql_(sql), journal_(journal) {
  if (journal == Journal::persistent) {
    isTransaction_ = file_.execute("BEGIN IMMEDIATE");
    if (!isTransaction_) {
      fail();
      return;
    }
    file_.execute("PRAGMA journal_mode=PERSIST");  // a store in another mode stays in it
  }
  prepare();
}

Statement::Statement(const std::string& path, const char* sql, std::chrono::milliseconds limit)
    : file_(path, limit), sql_(sql) {
  prepare();
}

void Statement::prepare() {
  if (file_.connection_ == nullptr ||
      sqlite3_prepare_v2(file_.connection_, sql_, -1, &statement_, nullptr) != SQLITE_OK) {
    fail();
  }
}

Statement::~Statement() {
  sqlite3_finalize(statement_);
  if (isTransaction_ && isDone_ && !file_.execute("COMMIT")) fail();
  if (!failure_.empty()) report();
}

void Statement::fail() {
  if (!diagnostics::areOn() || !failure_.empty()) return;
  catchAll([this] {
    failure_ = !platform::mayRecord()         ? "no connection in a child of a fork"
               : !file_.isCounted_            ? sqlite3_errstr(SQLITE_BUSY)
               : file_.connection_ == nullptr ? sqlite3_errstr(file_.openResult_)
                                              : sqlite3_errmsg(file_.connection_);
  });
}

void Statement::report() const noexcept {
  catchAll([this] {
    const auto* table = std::ranges::find_if(kTables, [this](const Table& each) {
      return std::string_view(sql_).find(each.name) != std::string_view::npos;
    });
    std::string error = failure_;
    if (table != std::end(kTables)) error.append(", table ").append(table->name);
    const bool isRow = journal_ == Journal::persistent;
    diagnostics::report({.kind = Diagnostic::Kind::store,
                         .isFailure = true,
                         .outcome = isRow ? "row lost" : "statement failed",
                         .error = std::move(error)});
  });
}

void Statement::bind(int index, const Text& text) {
  if (statement_ == nullptr) return;
  const auto bytes = text.view();
  if (validPrefix(bytes) != bytes.size()) return bind(index, repaired(bytes));
  const int result = text.isAbsent()
                         ? sqlite3_bind_null(statement_, index)
                         // A null pointer would bind NULL, and an empty text may have one.
                         : sqlite3_bind_text64(statement_, index, bytes.empty() ? "" : bytes.data(),
                                               bytes.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
  if (result == SQLITE_OK) return;
  fail();
  // A row without one of its texts would be a false one.
  sqlite3_finalize(std::exchange(statement_, nullptr));
}

bool Statement::step() {
  const int result = statement_ != nullptr ? sqlite3_step(statement_) : SQLITE_MISUSE;
  isDone_ = result == SQLITE_DONE;
  isRowTooLong_ = result == SQLITE_TOOBIG;
  isOverdue_ = result == SQLITE_INTERRUPT;
  if (result != SQLITE_ROW && !isDone_ && !isRowTooLong_ && !isOverdue_) fail();
  if (file_.limit_ != StoreFile::kUnlimited) {
    held_ = steady_clock::now() - (file_.deadline_ - file_.limit_);
  }
  return result == SQLITE_ROW;
}

std::string_view Statement::text(int index) const {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, index));
  if (bytes == nullptr) return "";
  return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_, index))};
}

int Statement::integer(int index) const { return sqlite3_column_int(statement_, index); }

std::int64_t Statement::id() const { return sqlite3_column_int64(statement_, 0); }

void Statement::limitTexts(int bytes) {
  if (file_.connection_ != nullptr) sqlite3_limit(file_.connection_, SQLITE_LIMIT_LENGTH, bytes);
}

LongRow::LongRow(const std::string& path, const Table& table, std::int64_t after)
    : file_(path), table_(table.name) {
  if (!file_.execute("BEGIN")) return;
  const std::string sql = std::string("SELECT id FROM ")
                              .append(table_)
                              .append(" WHERE id > ")
                              .append(std::to_string(after))
                              .append(" ORDER BY id LIMIT 1");
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(file_.connection_, sql.c_str(), -1, &statement, nullptr);
  exists_ = statement != nullptr && sqlite3_step(statement) == SQLITE_ROW;
  if (exists_) id_ = sqlite3_column_int64(statement, 0);
  sqlite3_finalize(statement);
}

bool LongRow::read(std::string_view column,
                   const std::function<void(std::string_view piece)>& use) {
  sqlite3_blob* opened = nullptr;
  const int result = sqlite3_blob_open(file_.connection_, "main", table_.c_str(),
                                       std::string(column).c_str(), id_, 0, &opened);
  const std::unique_ptr<sqlite3_blob, decltype(&sqlite3_blob_close)> text(opened,
                                                                          sqlite3_blob_close);
  if (result == SQLITE_ERROR) return true;  // NULL has no bytes to open
  if (result != SQLITE_OK) return false;
  std::string piece;
  const int size = sqlite3_blob_bytes(opened);
  for (int start = 0; start < size;) {
    piece.resize(static_cast<std::size_t>(std::min(size - start, kPieceBytes)));
    const auto bytes = static_cast<int>(piece.size());
    if (sqlite3_blob_read(opened, piece.data(), bytes, start) != SQLITE_OK) return false;
    if (start + bytes < size) piece.resize(cutPosition(piece, piece.size() - 1));
    use(piece);
    start += static_cast<int>(piece.size());
  }
  return true;
}

std::int64_t Statement::integer64(int index) const {
  return sqlite3_column_int64(statement_, index);
}

}  // namespace marbleway
