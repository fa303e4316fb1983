#include "tools/inspect/documents.h"

#include <algorithm>
#include <fstream>
#include <utility>
#include <vector>

#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/utf8.h"
#include "tools/inspect/read_only.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;
using marbleway::Store;
using marbleway::Table;

constexpr Store kStores[] = {Store::event, Store::network};
constexpr int kMaxAttempts = 100;
constexpr const char* kReadSchema = "SELECT count(*) FROM sqlite_master";

const char* nameOf(Store store) {
  return store == Store::event ? marbleway::DBFileName : marbleway::HTTPDBFileName;
}

/// What `path` is, in a directory that can be read.
fs::file_type kindOf(const fs::path& path) {
  std::error_code error;
  const fs::file_type kind = fs::status(path, error).type();
  if (kind != fs::file_type::none) return kind;
  throw ReadError(path.parent_path().string() + " cannot be read: " + error.message());
}

/// The file beside a store without which it is not whole, and how many of its first bytes are the
/// same as long as the store and this file belong together.
struct Log {
  const char* suffix;
  std::size_t identity;
};
constexpr Log kRollbackJournal{"-journal", std::string::npos};
constexpr Log kWriteAheadLog{"-wal", 32};  // its header, which has another salt at each restart

/// What has to be copied with a store before it can be read; nothing for one that is read in place.
std::optional<Log> logOf(const fs::path& store) {
  constexpr std::size_t kFileFormat = 18;  // of a store's header: 2 in write-ahead mode
  const std::string header = bytesOf(store, kFileFormat + 1);
  if (header.size() > kFileFormat && header[kFileFormat] == 2) return kWriteAheadLog;
  try {
    openStore(store)->execute(kReadSchema);
    return std::nullopt;
  } catch (const tools::DatabaseError& error) {
    if (error.code == SQLITE_READONLY_ROLLBACK) return kRollbackJournal;
    throw;
  }
}

/// Copies a store with its log and merges them in the copy, which is then read like any store.
void copyWithLog(const fs::path& store, const fs::path& copy, const Log& log) {
  std::optional<SharedLock> lock;
  if (log.identity != std::string::npos) lock.emplace(store);
  const auto logFile = fs::path(store).concat(log.suffix);
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    const std::string before = bytesOf(logFile, log.identity);
    fs::copy_file(store, copy, fs::copy_options::overwrite_existing);
    const std::string after = bytesOf(logFile);
    if (after.substr(0, log.identity) != before) continue;
    std::ofstream(fs::path(copy).concat(log.suffix), std::ios::binary) << after;
    tools::Database whole(marbleway::platform::utf8Of(copy), SQLITE_OPEN_READWRITE,
                          writableFiles());
    return whole.execute(std::string("PRAGMA journal_mode=DELETE; ") + kReadSchema);
  }
  throw ReadError(store.string() + ": changes too fast to be copied");
}

}  // namespace

std::string bytesOf(const fs::path& file, std::size_t maxBytes) {
  std::error_code error;
  const std::uintmax_t size = fs::is_regular_file(file, error) ? fs::file_size(file, error) : 0;
  if (error || size == 0) return {};
  std::string bytes(std::min<std::uintmax_t>(maxBytes, size), '\0');
  std::ifstream stream(file, std::ios::binary);
  stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(stream.gcount()));
  return bytes;
}

PrivateFolder::PrivateFolder() : ends_(SignalBlock::Kind::ends), path_(makePrivateFolder()) {}

PrivateFolder::~PrivateFolder() {
  std::error_code error;
  fs::remove_all(path_, error);
}

Documents::Documents(const fs::path& directory) : directory_(fs::absolute(directory)) {
  std::vector<std::pair<Store, std::optional<Log>>> found;
  for (const Store store : kStores) {
    const fs::path file = directory_ / nameOf(store);
    const fs::file_type kind = kindOf(file);
    if (kind == fs::file_type::not_found) continue;
    if (kind != fs::file_type::regular) throw ReadError(file.string() + ": not a regular file");
    found.emplace_back(store, logOf(file));
  }
  if (found.empty()) throw ReadError(directory_.string() + ": no stores here");
  for (const auto& [store, log] : found) {
    const fs::path file = directory_ / nameOf(store);
    if (log && !copies_) copies_.emplace();
    if (log) copyWithLog(file, copies_->path() / nameOf(store), *log);
  }
  for (const auto& each : found) {
    connections_.at(static_cast<std::size_t>(each.first)) = openStore(pathOf(each.first));
  }
}

fs::path Documents::pathOf(Store store) const {
  if (copies_ && fs::exists(copies_->path() / nameOf(store)))
    return copies_->path() / nameOf(store);
  return directory_ / nameOf(store);
}

Selection::Selection(const Documents& documents, const std::optional<std::string>& user) {
  if (!user) return;
  user_ = marbleway::repaired(*user);
  sessions_ = "[]";
  if (!documents.has(Store::event)) return;
  requireTable(documents[Store::event], "mrbw_v2_users");
  Query sessions(documents[Store::event],
                 "SELECT json_group_array(DISTINCT SessionID) FROM mrbw_v2_users WHERE UserID = ?1",
                 user_);
  if (sessions.next()) sessions_ = sessions.text(0).value_or("[]");
}

std::string Selection::condition(const Table& table) const {
  if (!user_) return "1";
  if (table.columns[0] != "SessionID") return "UserID = ?1";  // a message has no session
  return "SessionID IN (SELECT value FROM json_each(?1))";
}

const std::optional<std::string>& Selection::parameter(const Table& table) const {
  return table.columns[0] == "SessionID" ? sessions_ : user_;
}

}  // namespace inspect
