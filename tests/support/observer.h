#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/support/fixture.h"

namespace marbleway::testing {

/// A world that writes down, in order, what the library does to its surroundings: the rows of the
/// event store, console lines, requests, changes of the user defaults, and what is asked of the
/// user interface, the network capture and the crash hook.
class ObservedWorld : public World {
 public:
  ObservedWorld();

  /// Adds an effect, after the rows that came before it. Thread: any, one at a time.
  void add(const std::string& effect);
  /// The effects since the last call. Session and time texts are shortened: "#2" is the second
  /// identifier that the device made, "@1.5" a time 1.5 s after the start. A line's end is "\n",
  /// and blanks in a row are one.
  std::vector<std::string> takeEffects();

 private:
  void addNewRows();

  std::vector<std::string> effects_;
  std::map<std::string, std::int64_t> lastIDs_;  // by table
};

}  // namespace marbleway::testing
