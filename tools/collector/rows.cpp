#include "tools/collector/rows.h"

#include <algorithm>

namespace collector {
namespace {

constexpr std::size_t kMaxBytes = 8'000'000;  // of the texts of one reading

constexpr auto kArrivals =
    "SELECT a.n, a.Received, a.Kind, a.SessionID, a.Token, a.Batch, a.State, a.Row, "
    "coalesce((SELECT PlatformDeviceID FROM Sessions AS s WHERE s.SessionID = a.SessionID), '') "
    "FROM Arrivals AS a WHERE ";
constexpr auto kUser =
    "SELECT UserID FROM Users WHERE SessionID = ? AND UTCTimeStamp <= ? "
    "ORDER BY UTCTimeStamp DESC, id DESC LIMIT 1";
constexpr auto kSessions =
    "SELECT SessionID, max(n) AS newest, count(*), min(Received), max(Received), max(Token) "
    "FROM Arrivals WHERE SessionID <> '' GROUP BY SessionID ORDER BY newest DESC LIMIT 200";

/// The first and the last time of a session and its crashes. A device numbers its rows in the order
/// of time, so that the first and last row of each table answer, which the index finds.
std::string outlineText() {
  std::string times;
  for (const Kind& kind : kKinds) {
    if (!kind.hasSession()) continue;
    for (const char* order : {"", " DESC"}) {
      times += times.empty() ? "" : " UNION ALL ";
      times.append("SELECT * FROM (SELECT UTCTimeStamp AS Time FROM ").append(kind.name());
      times.append(" WHERE SessionID = ?1 ORDER BY id").append(order).append(" LIMIT 1)");
    }
  }
  return "SELECT min(Time), max(Time), (SELECT count(*) FROM Crashes WHERE SessionID = ?1) FROM (" +
         times + ") WHERE Time <> ''";
}

std::size_t sizeOf(const Row& row) {
  std::size_t size = 0;
  for (const std::string& text : row.texts) size += text.size();
  return size;
}

/// The text under `key`; empty in a kind that has none.
std::string textOf(const Row& row, std::string_view key) {
  const auto keys = row.kind->keys();
  const auto found = std::find(keys.begin(), keys.end(), key);
  return found == keys.end() ? std::string()
                             : row.texts[static_cast<std::size_t>(found - keys.begin())];
}

/// The texts as [key, text] pairs.
void putFields(tools::JsonWriter& writer, const Kind& kind, const auto& textAt) {
  writer.StartArray();
  for (std::size_t i = 0; i < kind.keys().size(); ++i)
    tools::putPair(writer, kind.keys()[i], textAt(i));
  writer.EndArray();
}

}  // namespace

void putRow(tools::JsonWriter& writer, const Row& row) {
  writer.StartObject();
  tools::member(writer, "n", row.n);
  tools::member(writer, "received", tools::isoTime(row.received));
  tools::member(writer, "table", row.kind->name());
  tools::member(writer, "name", row.name());
  tools::member(writer, "session", row.session);
  tools::member(writer, "user", row.user);
  tools::member(writer, "device", row.device);
  tools::member(writer, "token", row.token);
  tools::member(writer, "time", row.time());
  tools::put(writer, "lagMs");
  row.lag ? writer.Int64(*row.lag) : writer.Null();
  tools::member(writer, "state", row.state);
  tools::member(writer, "batch", row.batch);
  tools::member(writer, "times", row.times);
  tools::put(writer, "fields");
  putFields(writer, *row.kind, [&](std::size_t i) { return row.texts[i]; });
  writer.EndObject();
}

RowReader::RowReader(const std::string& path)
    : database_(path, SQLITE_OPEN_READONLY),
      user_(database_.prepare(kUser)),
      profile_(database_.prepare("SELECT * FROM Sessions WHERE SessionID = ? LIMIT 1")) {}

std::vector<Row> RowReader::read(const Filter& filter, const Range& range) {
  std::string sql = kArrivals + filter.condition() + " AND a.n > " + std::to_string(range.after);
  if (range.before) sql += " AND a.n < " + std::to_string(*range.before);
  sql += std::string(" ORDER BY a.n ") + (range.newest ? "DESC" : "ASC");
  tools::Statement arrivals = database_.prepare(sql + " LIMIT " + std::to_string(range.limit));
  filter.bind(arrivals);

  std::vector<Row> rows;
  std::size_t bytes = 0;
  while (bytes < kMaxBytes && arrivals.step()) {
    rows.push_back(rowAt(arrivals));
    bytes += sizeOf(rows.back());
  }
  if (range.newest) std::reverse(rows.begin(), rows.end());
  return rows;
}

long long RowReader::count(const Filter& filter) {
  tools::Statement statement =
      database_.prepare("SELECT count(*) FROM Arrivals AS a WHERE " + filter.condition());
  filter.bind(statement);
  statement.step();
  return statement.number(0);
}

long long RowReader::last() {
  tools::Statement statement =
      database_.prepare("SELECT seq FROM sqlite_sequence WHERE name = 'Arrivals'");
  return statement.step() ? statement.number(0) : 0;
}

Row RowReader::rowAt(const tools::Statement& arrival) {
  Row row;
  row.n = arrival.number(0);
  row.received = arrival.number(1);
  row.kind = kindNamed(arrival.text(2));
  row.session = arrival.text(3);
  row.token = arrival.text(4);
  row.batch = arrival.number(5);
  row.state = arrival.text(6);
  row.device = arrival.text(8);
  addTexts(row, arrival.number(7));
  if (row.kind->hasSession()) {
    addUser(row);
  } else {
    row.user = textOf(row, "UserID");
    row.device = textOf(row, "PlatformDeviceID");
  }
  return row;
}

void RowReader::addTexts(Row& row, long long place) {
  std::optional<tools::Statement>& statement = texts_[positionOf(*row.kind)];
  if (!statement) {
    statement = database_.prepare(
        "SELECT *, CAST(round((julianday(UTCTimeStamp) - 2440587.5) * 86400000) AS INTEGER) FROM " +
        std::string(row.kind->name()) + " WHERE rowid = ?");
  }
  const int columns = static_cast<int>(row.kind->keys().size());
  row.texts.resize(row.kind->keys().size());
  statement->bindAll(place);
  if (!statement->step()) return;  // deleted meanwhile
  for (int i = 0; i < columns; ++i) row.texts[static_cast<std::size_t>(i)] = statement->text(i);
  row.times = statement->number(columns);
  if (!statement->isNull(columns + 1)) row.lag = row.received - statement->number(columns + 1);
  statement->reset();
}

void RowReader::addUser(Row& row) {
  user_.bindAll(row.session, row.time());
  if (user_.step()) row.user = user_.text(0);
  user_.reset();
}

void RowReader::putSummary(tools::JsonWriter& writer) {
  tools::Statement counts = database_.prepare(
      "SELECT Kind, count(*), sum(State = 'again'), sum(State = 'gap') FROM Arrivals "
      "GROUP BY Kind");
  long long rows = 0, again = 0, gaps = 0;
  tools::put(writer, "tables");
  writer.StartObject();
  while (counts.step()) {
    tools::put(writer, counts.text(0));
    writer.StartObject();
    tools::member(writer, "rows", counts.number(1));
    tools::member(writer, "again", counts.number(2));
    tools::member(writer, "gaps", counts.number(3));
    writer.EndObject();
    rows += counts.number(1);
    again += counts.number(2);
    gaps += counts.number(3);
  }
  writer.EndObject();
  tools::member(writer, "rows", rows);
  tools::member(writer, "again", again);
  tools::member(writer, "gaps", gaps);
  tools::Statement sessions =
      database_.prepare("SELECT count(DISTINCT SessionID) FROM Arrivals WHERE SessionID <> ''");
  sessions.step();
  tools::member(writer, "sessions", sessions.number(0));
}

void RowReader::putSessions(tools::JsonWriter& writer) {
  tools::Statement sessions = database_.prepare(kSessions);
  tools::Statement outline = database_.prepare(outlineText());
  writer.StartArray();
  while (sessions.step()) {
    writer.StartObject();
    tools::member(writer, "session", sessions.text(0));
    tools::member(writer, "rows", sessions.number(2));
    tools::member(writer, "first", tools::isoTime(sessions.number(3)));
    tools::member(writer, "last", tools::isoTime(sessions.number(4)));
    tools::member(writer, "token", sessions.text(5));
    putOutline(writer, outline, sessions.text(0));
    putProfile(writer, sessions.text(0));
    writer.EndObject();
  }
  writer.EndArray();
}

void RowReader::putOutline(tools::JsonWriter& writer, tools::Statement& outline,
                           std::string_view session) {
  constexpr std::string_view kAnyTime = "9999";
  user_.bindAll(session, kAnyTime);
  tools::member(writer, "user", user_.step() ? user_.text(0) : std::string_view());
  user_.reset();
  outline.bindAll(session);
  outline.step();
  tools::member(writer, "begin", outline.text(0));
  tools::member(writer, "end", outline.text(1));
  tools::member(writer, "crashes", outline.number(2));
  outline.reset();
}

void RowReader::putProfile(tools::JsonWriter& writer, std::string_view session) {
  constexpr const Kind& kKind = kKinds[0];  // Sessions
  constexpr int kDevice = 5;                // PlatformDeviceID
  profile_.bindAll(session);
  const bool isKnown = profile_.step();
  tools::member(writer, "device", isKnown ? profile_.text(kDevice) : std::string_view());
  tools::put(writer, "profile");
  if (isKnown) {
    putFields(writer, kKind, [&](std::size_t i) { return profile_.text(static_cast<int>(i)); });
  } else {
    writer.StartArray();
    writer.EndArray();
  }
  profile_.reset();
}

}  // namespace collector
