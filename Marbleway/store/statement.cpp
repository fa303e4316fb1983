#include "Marbleway/store/statement.h"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <utility>

#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/utf8.h"

namespace marbleway {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kBusyTimeout{2};
constexpr std::chrono::milliseconds kRetryInterval{1};
constexpr int kPieceBytes = 64 * 1024;

constinit std::atomic<int> waitingFiles{0};  // open ones that have had to wait

}  // namespace

StoreFile::StoreFile(const std::string& path, IfMissing ifMissing) {
  if (!platform::mayRecord()) return;
  // Who waits looks once in a millisecond; a thread that closes and opens would always be first.
  if (waitingFiles > 0) sqlite3_sleep(kRetryInterval.count());
  // One thread uses the connection, so it needs no lock of its own.
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX |
                    (ifMissing == IfMissing::create ? SQLITE_OPEN_CREATE : 0);
  if (sqlite3_open_v2(path.c_str(), &connection_, flags, nullptr) != SQLITE_OK) {
    sqlite3_close(std::exchange(connection_, nullptr));
    return;
  }
  sqlite3_busy_handler(connection_, &StoreFile::busyHandler, this);
}

StoreFile::~StoreFile() {
  sqlite3_close(connection_);
  if (waited_ > waited_.zero()) --waitingFiles;
}

// Short naps: with SQLite's own, ever longer ones, eight busy threads starve each other.
int StoreFile::busyHandler(void* file, int /*calls*/) {
  auto& self = *static_cast<StoreFile*>(file);
  if (self.waited_ >= kBusyTimeout) return 0;
  if (self.waited_ == self.waited_.zero()) ++waitingFiles;
  const auto start = steady_clock::now();
  sqlite3_sleep(kRetryInterval.count());
  // A nap that returns early counts in full, so that their number has an end too.
  self.waited_ += std::max<steady_clock::duration>(steady_clock::now() - start, kRetryInterval);
  return 1;
}

bool StoreFile::execute(const char* sql) {
  return connection_ != nullptr &&
         sqlite3_exec(connection_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

Statement::Statement(const std::string& path, const char* sql, Journal journal) : file_(path) {
  if (file_.connection_ == nullptr) return;
  if (journal == Journal::persistent) {
    if (!file_.execute("BEGIN IMMEDIATE;PRAGMA journal_mode=PERSIST")) return;
    isTransaction_ = true;
  }
  sqlite3_prepare_v2(file_.connection_, sql, -1, &statement_, nullptr);
}

Statement::~Statement() {
  sqlite3_finalize(statement_);
  if (isTransaction_ && isDone_) file_.execute("COMMIT");
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
  // A row that lacks one of its texts would tell what was not so.
  if (result != SQLITE_OK) sqlite3_finalize(std::exchange(statement_, nullptr));
}

bool Statement::step() {
  const int result = statement_ != nullptr ? sqlite3_step(statement_) : SQLITE_MISUSE;
  isDone_ = result == SQLITE_DONE;
  isRowTooLong_ = result == SQLITE_TOOBIG;
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

}  // namespace marbleway
