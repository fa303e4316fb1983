#pragma once

#include <array>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "Marbleway/store/schema.h"
#include "tools/inspect/store_file.h"

namespace inspect {

/// A folder of its own, mode 0700, removed with this object. Signals that end the program are
/// blocked meanwhile, so that it never outlives the program; `kill -9` leaves it behind.
class PrivateFolder {
 public:
  PrivateFolder();
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;
  ~PrivateFolder();

  const std::filesystem::path& path() const { return path_; }

 private:
  SignalBlock ends_;
  std::filesystem::path path_;
};

/// A documents directory to read, whose files stay as they are, byte for byte.
///
/// A store in write-ahead mode, and one whose last writer was killed amid a commit, is read from a
/// private copy, in which that commit is undone as the library's next start will undo it.
class Documents {
 public:
  /// Throws a ReadError or a DatabaseError when there is no store or one cannot be read.
  explicit Documents(const std::filesystem::path& directory);
  bool has(marbleway::Store store) const { return connectionOf(store) != nullptr; }
  /// The connection to a store that is there.
  const tools::Database& operator[](marbleway::Store store) const { return *connectionOf(store); }
  /// Where a store is read.
  std::filesystem::path pathOf(marbleway::Store store) const;
  /// The file of settings, which may be missing.
  std::filesystem::path settings() const { return directory_ / "user-defaults.json"; }

 private:
  const std::unique_ptr<tools::Database>& connectionOf(marbleway::Store store) const {
    return connections_.at(static_cast<std::size_t>(store));
  }

  std::filesystem::path directory_;  // absolute
  std::optional<PrivateFolder> copies_;
  std::array<std::unique_ptr<tools::Database>, 2> connections_;  // null for a missing store
};

/// The rows that are asked for: all of them, or those of one user's sessions.
class Selection {
 public:
  Selection(const Documents& documents, const std::optional<std::string>& user);

  /// What holds for a row of `table` that is asked for; "?1" in it is the parameter.
  std::string condition(const marbleway::Table& table) const;
  const std::optional<std::string>& parameter(const marbleway::Table& table) const;
  bool isEverything() const { return !user_; }
  /// True when a user is asked for whom no session names.
  bool isUnknownUser() const { return user_ && sessions_ == "[]"; }

 private:
  std::optional<std::string> user_;
  std::optional<std::string> sessions_;  // the user's, a JSON array of texts
};

/// The contents of `file`, at most `maxBytes` of it; "" for what is missing or no regular file.
std::string bytesOf(const std::filesystem::path& file, std::size_t maxBytes = std::string::npos);

}  // namespace inspect
