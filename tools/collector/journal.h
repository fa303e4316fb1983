#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tools/collector/data_file.h"
#include "tools/common/json_text.h"

namespace collector {

/// One handshake or batch and what was answered.
struct Exchange {
  long long n = 0;         // its number, from 1 on
  long long received = 0;  // milliseconds since 1970
  std::string token;
  int status = 0;  // 0: no answer was given
  std::string answer;
  std::string fault;  // the first thing found wrong with it
  std::vector<std::pair<std::string, std::string>> headers;
  std::shared_ptr<const std::string> body;  // null when it is not stored
  std::size_t bytes = 0;
  Tally tally;
};

/// The latest exchanges of one kind, since the program started.
class Journal {
 public:
  using Entry = std::shared_ptr<const Exchange>;
  static constexpr std::size_t kMax = 200;
  static constexpr std::size_t kMaxBodyBytes = 4'000'000;  // bytes; a longer one is not stored
  static constexpr std::size_t kMaxBytes = 64'000'000;     // of all bodies; the oldest go first

  /// Begins with `first`.
  explicit Journal(long long first) : nextNumber_(first) {}

  /// The number of the next exchange.
  long long number();
  void add(Exchange exchange);
  void clear();

  /// Those added since `cursor`, oldest first; `cursor` moves on to the newest.
  std::vector<Entry> since(long long& cursor) const;
  /// A cursor after the newest.
  long long end() const;
  /// Null when it is not stored.
  Entry find(long long n) const;
  /// How many there have been since the start or the last clearing, and how many had a fault.
  struct Counts {
    long long all = 0, faulty = 0;
  };
  Counts counts() const;

 private:
  mutable std::mutex mutex_;
  std::deque<Entry> entries_;  // in the order in which they were answered
  std::size_t bytes_ = 0;      // of their bodies
  long long nextNumber_;
  long long added_ = 0;  // ever
  Counts counts_;
};

void putBatch(tools::JsonWriter& writer, const Exchange& batch);
void putHandshake(tools::JsonWriter& writer, const Exchange& handshake);

}  // namespace collector
