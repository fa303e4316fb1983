#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "Marbleway/store/schema.h"

namespace inspect {

/// A folder of its own, mode 0700, gone with this object. While it lives, signals that end the
/// program wait, so that it never outlives the program; `kill -9` leaves it there.
class PrivateFolder {
 public:
  PrivateFolder();
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;
  ~PrivateFolder();

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// A documents directory to read, whose files stay as they are, byte for byte.
///
/// A store whose last writer was killed amid a commit is read from a private copy, in which that
/// commit is undone as the library's next start will undo it.
class Documents {
 public:
  /// Throws a ReadError when there is no store or one cannot be read.
  explicit Documents(const std::filesystem::path& directory);
  bool has(marbleway::Store store) const;
  /// Where a store is read.
  std::filesystem::path pathOf(marbleway::Store store) const;
  /// The directory in which both stores are read.
  const std::filesystem::path& readable() const { return copies_ ? copies_->path() : directory_; }
  /// The file of settings, which may be missing.
  std::filesystem::path settings() const { return directory_ / "user-defaults.json"; }

 private:
  std::filesystem::path directory_;  // absolute
  std::optional<PrivateFolder> copies_;
};

/// The rows that are asked for: all of them, or those of one user's sessions.
class Selection {
 public:
  Selection(const Documents& documents, const std::optional<std::string>& user);

  /// What holds for a row of `table` that is asked for; "?1" in it is the parameter.
  std::string condition(const marbleway::Table& table) const;
  std::optional<std::string> parameter(const marbleway::Table& table) const;
  bool isEverything() const { return !user_; }
  /// True when a user is asked for whom no session names.
  bool isUnknownUser() const { return user_ && sessions_ == "[]"; }

 private:
  std::optional<std::string> user_;
  std::string sessions_ = "[]";  // the user's, a JSON array of texts
};

}  // namespace inspect
