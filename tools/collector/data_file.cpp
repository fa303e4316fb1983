#include "tools/collector/data_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tools/common/json_text.h"

namespace collector {
namespace {

/// In this mode readers of the file and a batch do not wait for each other.
constexpr auto kBegin = "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; BEGIN IMMEDIATE";
constexpr auto kCreateOthers =
    "CREATE TABLE IF NOT EXISTS Arrivals (n INTEGER PRIMARY KEY AUTOINCREMENT, Received INTEGER, "
    "Kind TEXT, Row INTEGER, SessionID TEXT, Token TEXT, Batch INTEGER, State TEXT); "
    "CREATE INDEX IF NOT EXISTS ArrivalsByKind ON Arrivals (Kind, State); "
    "CREATE INDEX IF NOT EXISTS ArrivalsBySession ON Arrivals (SessionID, Received, Token); "
    "CREATE INDEX IF NOT EXISTS ArrivalsByBatch ON Arrivals (Batch); "
    "CREATE INDEX IF NOT EXISTS SessionsByDevice ON Sessions (PlatformDeviceID, SessionID); "
    "CREATE TABLE IF NOT EXISTS Requests (Time TEXT, Method TEXT, Path TEXT, Status INTEGER, "
    "Rows INTEGER, NewRows INTEGER, Bytes INTEGER, Fault TEXT); COMMIT";

// A device numbers the rows of a table one by one. So a row follows a gap if its device has sent a
// smaller number, but not the one before. Privacy mode gives a device another identifier: a number
// from a session in the other mode, or of an unknown device, may belong to the same device and
// closes the gap. @ is the table, ?1 the batch.
constexpr std::string_view kMarkGaps =
    "UPDATE Arrivals SET State = 'gap' WHERE Batch = ?1 AND Kind = '@' AND State = 'new' AND EXISTS "
    "(SELECT 1 FROM @ AS r JOIN Sessions AS s USING (SessionID) WHERE r.rowid = Arrivals.Row "
    "AND s.PlatformDeviceID <> '' AND NOT EXISTS "
    "(SELECT 1 FROM @ AS p LEFT JOIN Sessions AS q USING (SessionID) WHERE p.id = r.id - 1 "
    "AND (q.SessionID IS NULL OR q.PrivacyMode <> s.PrivacyMode OR (q.BundleID = s.BundleID "
    "AND q.ProjectToken = s.ProjectToken AND q.PlatformDeviceID = s.PlatformDeviceID))) AND EXISTS "
    "(SELECT 1 FROM Sessions AS q JOIN @ AS p USING (SessionID) WHERE p.id < r.id "
    "AND q.BundleID = s.BundleID AND q.ProjectToken = s.ProjectToken "
    "AND q.PlatformDeviceID = s.PlatformDeviceID))";

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

/// `path`, where a missing file is made for this user alone; SQLite gives its own files that mode.
const std::string& created(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600);
  if (file >= 0) close(file);
  return path;
}

std::string withTable(std::string_view sql, std::string_view table) {
  std::string text(sql);
  for (auto at = text.find('@'); at != text.npos; at = text.find('@', at)) {
    text.replace(at, 1, table);
  }
  return text;
}

}  // namespace

DataFile::DataFile(const std::string& path)
    : path_(created(path)), database_(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) {
  database_.execute(kBegin);
  for (const Kind& kind : kKinds) createTable(kind);
  database_.execute(kCreateOthers);
  for (const Kind& kind : kKinds) {
    if (!kind.hasSession()) continue;
    statements_[positionOf(kind)].markGaps = database_.prepare(withTable(kMarkGaps, kind.name()));
  }
  logRequest_ = database_.prepare(
      "INSERT INTO Requests VALUES (strftime('%Y-%m-%d %H:%M:%f', 'now'), ?, ?, ?, ?, ?, ?, ?)");
  insertArrival_ = database_.prepare("INSERT INTO Arrivals VALUES (NULL, ?, ?, ?, ?, ?, ?, ?)");
}

void DataFile::createTable(const Kind& kind) {
  const std::string name(kind.name());
  database_.execute(
      "CREATE TABLE IF NOT EXISTS " + name + " (" +
      eachKey(kind, ", ", [](auto key) { return key + (key == "id" ? " INTEGER" : " TEXT"); }) +
      ", TimesReceived INTEGER)");
  const auto index = [&](const char* by, const char* columns) {
    database_.execute("CREATE INDEX IF NOT EXISTS " + name + by + " ON " + name + columns);
  };
  index("ByTime", " (UTCTimeStamp, id)");
  index("ById", " (id)");
  if (kind.hasSession()) index("BySession", " (SessionID, id)");

  Statements& statements = statements_[positionOf(kind)];
  statements.countAgain = database_.prepare(
      "UPDATE " + name + " SET TimesReceived = TimesReceived + 1 WHERE " +
      eachKey(kind, " AND ", [](auto key) { return key + " = ?"; }) + " RETURNING rowid");
  statements.insert = database_.prepare("INSERT INTO " + name + " VALUES (" +
                                        eachKey(kind, ", ", [](auto) { return "?"; }) + ", 1)");
}

void DataFile::logRequest(const Entry& entry) noexcept {
  const std::scoped_lock lock(mutex_);
  const std::string_view fault = entry.status == 200 ? std::string_view() : entry.what;
  logRequest_.bindAll(entry.method, entry.path, entry.status, entry.tally.rows, entry.tally.newRows,
                      static_cast<long long>(entry.bytes), fault);
  logRequest_.tryRun();
}

void DataFile::clear() {
  const std::scoped_lock lock(mutex_);
  std::string sql = "BEGIN IMMEDIATE; DELETE FROM Arrivals; DELETE FROM Requests; ";
  for (const Kind& kind : kKinds) sql.append("DELETE FROM ").append(kind.name()).append("; ");
  database_.execute(sql + "COMMIT");
}

long long DataFile::lastBatch() {
  const std::scoped_lock lock(mutex_);
  tools::Statement statement = database_.prepare("SELECT max(Batch) FROM Arrivals");
  statement.step();
  return statement.number(0);
}

DataFile::Batch::Batch(DataFile& file, Origin origin)
    : file_(file),
      mutex_(file.mutex_),
      origin_(std::move(origin)),
      received_(tools::millisecondsNow()) {
  file_.database_.execute("BEGIN IMMEDIATE");
}

DataFile::Batch::~Batch() {
  if (!committed_) file_.database_.tryExecute("ROLLBACK");
}

void DataFile::Batch::add(const Kind& kind, std::span<const std::string_view> texts) {
  const auto [row, isNew] = insertOrCount(kind, texts);
  ++tally_.rows;
  ++tally_.counts[positionOf(kind)];
  if (isNew) ++tally_.newRows;
  const std::string_view session = kind.hasSession() ? texts[1] : std::string_view();
  arrivals_.push_back({&kind, texts.back(), session, row, isNew});
}

/// A batch has its rows table by table; rows of one time stay in that order.
void DataFile::Batch::insertArrivals() {
  std::ranges::stable_sort(arrivals_, {}, &Arrival::time);
  for (const auto& [kind, time, session, row, isNew] : arrivals_) {
    file_.insertArrival_.bindAll(received_, kind->name(), row, session, origin_.token,
                                 origin_.number, std::string_view(isNew ? "new" : "again"));
    file_.insertArrival_.run();
  }
}

std::pair<long long, bool> DataFile::Batch::insertOrCount(const Kind& kind,
                                                          std::span<const std::string_view> texts) {
  Statements& statements = file_.statements_[positionOf(kind)];
  const auto bind = [&](tools::Statement& statement) {
    int index = 0;
    for (const std::string_view text : texts) statement.bind(++index, text);
  };
  bind(statements.countAgain);
  if (statements.countAgain.step()) {
    const long long row = statements.countAgain.number(0);
    statements.countAgain.run();
    return {row, false};
  }
  bind(statements.insert);
  statements.insert.run();
  return {file_.database_.lastRow(), true};
}

Tally DataFile::Batch::commit() {
  insertArrivals();
  for (const Kind& kind : kKinds) {
    tools::Statement& markGaps = file_.statements_[positionOf(kind)].markGaps;
    if (tally_.counts[positionOf(kind)] == 0 || !kind.hasSession()) continue;
    markGaps.bindAll(origin_.number);
    markGaps.run();
  }
  file_.database_.execute("COMMIT");
  committed_ = true;
  return tally_;
}

}  // namespace collector
