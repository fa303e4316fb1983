#include "tools/collector/journal.h"

#include <algorithm>

#include "tools/common/text.h"

namespace collector {
namespace {

std::size_t bodySize(const Journal::Entry& entry) { return entry->body ? entry->body->size() : 0; }

void putHeaders(tools::JsonWriter& writer, const Exchange& exchange) {
  tools::put(writer, "headers");
  writer.StartArray();
  for (const auto& [name, value] : exchange.headers)
    tools::putPair(writer, tools::asUtf8(name), tools::asUtf8(value));
  writer.EndArray();
}

/// What both kinds begin with.
void putStart(tools::JsonWriter& writer, const Exchange& exchange) {
  writer.StartObject();
  tools::member(writer, "n", exchange.n);
  tools::member(writer, "received", tools::isoTime(exchange.received));
  tools::member(writer, "token", tools::asUtf8(exchange.token));
  tools::member(writer, "status", exchange.status);
  tools::member(writer, "answer", exchange.answer);
  tools::member(writer, "fault", exchange.fault);
  putHeaders(writer, exchange);
}

}  // namespace

long long Journal::number() {
  const std::scoped_lock lock(mutex_);
  return nextNumber_++;
}

void Journal::add(Exchange exchange) {
  const std::scoped_lock lock(mutex_);
  ++counts_.all;
  if (!exchange.fault.empty()) ++counts_.faulty;
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
  counts_ = {};
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

Journal::Counts Journal::counts() const {
  const std::scoped_lock lock(mutex_);
  return counts_;
}

void putBatch(tools::JsonWriter& writer, const Exchange& batch) {
  putStart(writer, batch);
  tools::member(writer, "bytes", batch.bytes);
  tools::member(writer, "rows", batch.tally.rows);
  tools::member(writer, "newRows", batch.tally.newRows);
  tools::put(writer, "counts");
  writer.StartObject();
  for (const Kind& kind : kKinds) {
    const long long count = batch.tally.counts[positionOf(kind)];
    if (count != 0) tools::member(writer, kind.name(), count);
  }
  writer.EndObject();
  writer.EndObject();
}

void putHandshake(tools::JsonWriter& writer, const Exchange& handshake) {
  putStart(writer, handshake);
  tools::member(writer, "request", tools::asUtf8(handshake.body ? *handshake.body : std::string()));
  writer.EndObject();
}

}  // namespace collector
