#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "Marbleway/store/schema.h"
#include "tools/common/arguments.h"
#include "tools/inspect/sheet.h"

namespace inspect {

/// What --help prints.
inline constexpr auto kUsage = R"(usage: marbleway-inspect DIRECTORY COMMAND [...]
Shows the rows that the library has stored in a documents directory, without changing a byte of it.
Safe while the application runs.

  stats                  rows, bytes, oldest and newest row of each table, and both files
  rows [TABLE]           the rows of a table, or of all: "events", "mrbw_v2_events" or "Events"
  batch                  the document that would be sent now, byte for byte
  privacy                what of a person is stored: columns, rows and different values

  --user ID              only the rows of sessions that name this user, and the user's messages;
                         a session may name more than one
  --format FORMAT        table (the default), ndjson or csv; batch is always JSON
  --directory DIRECTORY  the documents directory, in the place of the first argument
  -h, --help, --version  print this, or the version

Ends with 0; with 1 when there is no store or one cannot be read; with 2 for wrong usage.
)";

enum class Command { stats, rows, batch, privacy };

struct Request {
  Command command = Command::stats;
  std::filesystem::path directory{};
  const marbleway::Table* table = nullptr;  // of `rows`; null for all
  std::optional<std::string> user{};
  Format format = Format::table;
};

/// The arguments after the program's name. Throws a UsageError, as the next.
tools::Arguments readArguments(std::span<const char* const> words);
/// What they ask for.
Request requestFrom(const tools::Arguments& arguments);

}  // namespace inspect
