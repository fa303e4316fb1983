#include "tools/collector/journal.h"

#include <algorithm>

namespace collector {
namespace {

std::size_t bodySize(const Journal::Entry& entry) { return entry->body ? entry->body->size() : 0; }

void putHeaders(JsonWriter& writer, const Exchange& exchange) {
  put(writer, "headers");
  writer.StartArray();
  for (const auto& [name, value] : exchange.headers) putPair(writer, asUtf8(name), asUtf8(value));
  writer.EndArray();
}

/// What both kinds begin with.
void putStart(JsonWriter& writer, const Exchange& exchange) {
  writer.StartObject();
  member(writer, "n", exchange.n);
  member(writer, "received", isoTime(exchange.received));
  member(writer, "token", asUtf8(exchange.token));
  member(writer, "status", exchange.status);
  member(writer, "answer", exchange.answer);
  member(writer, "fault", exchange.fault);
  putHeaders(writer, exchange);
}

}  // namespace

long long Journal::number() {
  const std::scoped_lock lock(mutex_);
  return turnMutex_++;
}

void Journal::add(Exchange exchange) {
  const std::scoped_lock lock(mutex_);
  ++count_;
  if (!exchange.fault.empty()) ++faulty_;
  entries_.push_back(std::make_shared<const Exchange>(std::move(exchange)));
  ++added_;
  bytes_ += bodySize(entries_.back());
  while (entries_.size() > kMax || bytes_ > kMaxBytes) {
    bytes_ -= bodySize(entries_.front());
    entries_.pop_front();
  }
}

void Journal::clear() {
  const std::scoped_lock lock(mutex_);
  entries_.clear();
  bytes_ = 0;
  count_ = faulty_ = 0;
}

std::vector<Journal::Entry> Journal::since(long long& cursor) const {
  const std::scoped_lock lock(mutex_);
  const auto unread = std::min<long long>(added_ - cursor, std::ssize(entries_));
  cursor = added_;
  return {entries_.end() - unread, entries_.end()};
}

long long Journal::end() const {
  const std::scoped_lock lock(mutex_);
  return added_;
}

Journal::Entry Journal::find(long long n) const {
  const std::scoped_lock lock(mutex_);
  const auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [&](const Entry& entry) { return entry->n == n; });
  return found == entries_.end() ? nullptr : *found;
}

std::pair<long long, long long> Journal::counts() const {
  const std::scoped_lock lock(mutex_);
  return {count_, faulty_};
}

void putBatch(JsonWriter& writer, const Exchange& batch) {
  putStart(writer, batch);
  member(writer, "bytes", batch.bytes);
  member(writer, "rows", batch.tally.rows);
  member(writer, "newRows", batch.tally.newRows);
  put(writer, "counts");
  writer.StartObject();
  for (const Kind& kind : kKinds) {
    const long long count = batch.tally.counts[positionOf(kind)];
    if (count != 0) member(writer, kind.name(), count);
  }
  writer.EndObject();
  writer.EndObject();
}

void putHandshake(JsonWriter& writer, const Exchange& handshake) {
  putStart(writer, handshake);
  member(writer, "request", asUtf8(handshake.body ? *handshake.body : std::string()));
  writer.EndObject();
}

}  // namespace collector
