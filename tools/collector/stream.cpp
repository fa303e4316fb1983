#include "tools/collector/stream.h"

#include <array>
#include <chrono>
#include <utility>

#include "tools/collector/row_csv.h"

namespace collector {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPause = 100ms;          // between two messages at least, once all rows are sent
constexpr auto kMaxSilence = 5s;        // then a comment is sent
constexpr auto kCheckInterval = 500ms;  // between two checks that the page is still there
constexpr auto* kComment = ":\n\n";     // ignored by pages

void addEvent(std::string& events, std::string_view name, const std::string& data) {
  events.append("event: ").append(name).append("\ndata: ").append(data).append("\n\n");
}

std::string rowsText(const std::vector<Row>& rows) {
  return tools::jsonText([&](tools::JsonWriter& writer) {
    writer.StartArray();
    for (const Row& row : rows) putRow(writer, row);
    writer.EndArray();
  });
}

}  // namespace

Stream::Stream(Records& records, long long after, std::shared_ptr<void> slot)
    : records_(records),
      rows_(records.data.path()),
      all_({}, {}),
      row_(after),
      batch_(records.batches.end()),
      handshake_(records.handshakes.end()),
      change_(records.behaviour.changes()),
      reset_(records.resets),
      slot_(std::move(slot)) {
  if (row_ <= rows_.last()) return;
  row_ = 0;
  reset_ = -1;
}

bool Stream::send(httplib::DataSink& sink) {
  const auto deadline = Clock::now() + kMaxSilence;
  std::string events;
  while (!records_.notifier.ended() && Clock::now() < deadline) {
    const unsigned long long seen = records_.notifier.count();
    events = newEvents();
    if (!events.empty()) break;
    if (!sink.is_writable()) return false;
    records_.notifier.waitBeyond(seen, Clock::now() + kCheckInterval);
  }
  if (events.empty()) events = kComment;
  if (!sink.write(events.data(), events.size())) return false;
  if (!hasMore_ && !records_.notifier.pauseUntil(Clock::now() + kPause)) sink.done();
  return true;
}

std::string Stream::newEvents() {
  std::string events;
  if (const long long reset = records_.resets; reset != std::exchange(reset_, reset)) {
    addEvent(events, "reset", "{}");
  }
  const long long change = records_.behaviour.changes();
  if (change != std::exchange(change_, change)) {
    addEvent(events, "behaviour", records_.behaviour.text());
  }
  addExchanges(events, "handshake", records_.handshakes, handshake_, putHandshake);
  addExchanges(events, "batch", records_.batches, batch_, putBatch);
  addRows(events);
  return events;
}

void Stream::addRows(std::string& events) {
  const Range next{.after = row_};
  const std::vector<Row> rows = rows_.read(all_, next);
  hasMore_ = std::ssize(rows) == next.limit;
  if (rows.empty()) return;
  row_ = rows.back().n;
  events.append("id: ").append(std::to_string(row_)).append("\n");
  addEvent(events, "rows", rowsText(rows));
}

void Stream::addExchanges(std::string& events, std::string_view name, const Journal& journal,
                          long long& cursor, void (*putOne)(tools::JsonWriter&, const Exchange&)) {
  for (const Journal::Entry& entry : journal.since(cursor)) {
    addEvent(events, name,
             tools::jsonText([&](tools::JsonWriter& writer) { putOne(writer, *entry); }));
  }
}

Export::Export(const std::string& path, Filter filter, Format format, std::shared_ptr<void> slot)
    : rows_(path), filter_(std::move(filter)), format_(format), slot_(std::move(slot)) {}

bool Export::send(httplib::DataSink& sink) {
  std::string text;
  if (range_.after == 0 && format_ == Format::csv) text = csvHead(kindNamed(filter_.table()));
  const std::vector<Row> rows = rows_.read(filter_, range_);
  text += piece(rows);
  if (!text.empty() && !sink.write(text.data(), text.size())) return false;
  if (rows.empty()) {
    sink.done();
  } else {
    range_.after = rows.back().n;
  }
  return true;
}

std::string Export::piece(const std::vector<Row>& rows) const {
  std::string text;
  for (const Row& row : rows) {
    text += format_ == Format::csv
                ? csvLine(row, !filter_.table().empty())
                : tools::jsonText([&](tools::JsonWriter& writer) { putRow(writer, row); }) + "\n";
  }
  return text;
}

}  // namespace collector
