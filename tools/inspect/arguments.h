#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "Marbleway/store/schema.h"
#include "tools/common/arguments.h"
#include "tools/inspect/sheet.h"

namespace inspect {

/// What --help prints, before the tables' names.
inline constexpr auto kUsage = R"(usage: marbleway-inspect [DIRECTORY COMMAND] [...]
Shows the rows that the library has stored in a documents directory, without changing a byte of it.
Safe while the application runs. Without a directory it lists the applications that have stores. A
bundle identifier can take the directory's place.

  stats                  rows, bytes, oldest and newest row of each table with rows, of all, and of
                         both files
  rows [TABLE]           the rows of a table, or of all: "events", "mrbw_v2_events" or "Events"
  batch                  the document that would be sent now, byte for byte
  privacy                what of a person is stored: columns, rows and different values

  --all                  with stats: empty tables too
  --limit N              with rows: the newest N rows of each table
  --follow               with rows: goes on with new rows as they are recorded, until Ctrl-C
  --user ID              only the rows of sessions that name this user, and the user's messages;
                         a session may name more than one
  --format FORMAT        table (the default), ndjson or csv; batch is always JSON
  --directory DIRECTORY  the documents directory, in the place of the first argument
  -h, --help, --version  print this, or the version

Ends with 0; with 1 when there is no store, one cannot be read or the output cannot be written; with
2 for wrong usage.

Tables:
)";

enum class Command { applications, stats, rows, batch, privacy };

struct Request {
  Command command = Command::applications;
  std::filesystem::path directory{};        // or a bundle identifier
  const marbleway::Table* table = nullptr;  // of `rows`; null for all
  std::optional<int> limit{};               // of `rows`
  bool follow = false;                      // of `rows`
  bool all = false;                         // of `stats`
  std::optional<std::string> user{};
  Format format = Format::table;
};

/// kUsage and the tables' names.
std::string usage();
/// The arguments after the program's name. Throws a UsageError, as the next.
tools::Arguments readArguments(std::span<const char* const> words);
/// What they ask for.
Request requestFrom(const tools::Arguments& arguments);

}  // namespace inspect
