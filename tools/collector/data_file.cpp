#include "tools/collector/data_file.h"

#include <stdexcept>

namespace collector {
namespace {

/// What `term` makes of each key of `kind`, joined.
template <class Term>
std::string eachKey(const Kind& kind, std::string_view separator, Term term) {
  std::string list;
  for (const std::string_view key : kind.keys()) {
    if (!list.empty()) list += separator;
    list.append(term(std::string(key)));
  }
  return list;
}

void bind(const auto& statement, int index, std::string_view text) {
  const char* data = text.empty() ? "" : text.data();  // a null pointer would bind NULL
  sqlite3_bind_text64(statement.get(), index, data, text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

void bind(const auto& statement, int index, long long number) {
  sqlite3_bind_int64(statement.get(), index, number);
}

std::size_t positionOf(const Kind& kind) { return static_cast<std::size_t>(&kind - kKinds.data()); }

}  // namespace

DataFile::DataFile(const std::string& path) : path_(path) {
  sqlite3* database = nullptr;
  const int result = sqlite3_open(path.c_str(), &database);
  database_.reset(database);
  if (result != SQLITE_OK) fail();
  sqlite3_busy_timeout(database, 10'000);
  // Whoever looks into the file meanwhile neither waits nor makes a batch wait.
  execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; BEGIN IMMEDIATE");
  for (const Kind& kind : kKinds) createTable(kind);
  execute(
      "CREATE TABLE IF NOT EXISTS Requests (Time TEXT, Method TEXT, Path TEXT, Status INTEGER, "
      "Rows INTEGER, NewRows INTEGER, Bytes INTEGER, Fault TEXT); COMMIT");
  note_ = prepare(
      "INSERT INTO Requests VALUES (strftime('%Y-%m-%d %H:%M:%f', 'now'), ?, ?, ?, ?, ?, ?, ?)");
}

void DataFile::createTable(const Kind& kind) {
  const std::string name(kind.name());
  execute("CREATE TABLE IF NOT EXISTS " + name + " (" +
          eachKey(kind, ", ", [](auto key) { return key + (key == "id" ? " INTEGER" : " TEXT"); }) +
          ", TimesReceived INTEGER)");
  execute("CREATE INDEX IF NOT EXISTS " + name + "ByTime ON " + name + " (UTCTimeStamp, id)");

  Statements& statements = statements_[positionOf(kind)];
  statements.countAgain =
      prepare("UPDATE " + name + " SET TimesReceived = TimesReceived + 1 WHERE " +
              eachKey(kind, " AND ", [](auto key) { return key + " = ?"; }));
  statements.insert = prepare("INSERT INTO " + name + " VALUES (" +
                              eachKey(kind, ", ", [](auto) { return "?"; }) + ", 1)");
}

void DataFile::note(const Entry& entry) noexcept {
  const std::scoped_lock lock(mutex_);
  int index = 0;
  bind(note_, ++index, entry.method);
  bind(note_, ++index, entry.path);
  bind(note_, ++index, entry.status);
  bind(note_, ++index, entry.tally.rows);
  bind(note_, ++index, entry.tally.newRows);
  bind(note_, ++index, static_cast<long long>(entry.bytes));
  bind(note_, ++index, entry.status == 200 ? std::string_view() : entry.what);
  sqlite3_step(note_.get());
  sqlite3_reset(note_.get());
}

void DataFile::fail() const {
  throw std::runtime_error("the data file " + path_ + ": " + sqlite3_errmsg(database_.get()));
}

void DataFile::execute(const std::string& sql) {
  if (sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

DataFile::Statement DataFile::prepare(const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(database_.get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
    fail();
  }
  return Statement(statement);
}

DataFile::Batch::Batch(DataFile& file) : file_(file), lock_(file.mutex_) {
  file_.execute("BEGIN IMMEDIATE");
}

DataFile::Batch::~Batch() {
  if (!committed_) sqlite3_exec(file_.database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void DataFile::Batch::keep(const Kind& kind, std::span<const std::string_view> texts) {
  const Statements& statements = file_.statements_[positionOf(kind)];
  ++tally_.rows;
  run(statements.countAgain, texts);
  if (sqlite3_changes(file_.database_.get()) != 0) return;
  run(statements.insert, texts);
  ++tally_.newRows;
}

Tally DataFile::Batch::commit() {
  file_.execute("COMMIT");
  committed_ = true;
  return tally_;
}

void DataFile::Batch::run(const Statement& statement, std::span<const std::string_view> texts) {
  int index = 0;
  for (const std::string_view text : texts) bind(statement, ++index, text);
  sqlite3_step(statement.get());
  if (sqlite3_reset(statement.get()) != SQLITE_OK) file_.fail();  // tells what the step met
}

}  // namespace collector
