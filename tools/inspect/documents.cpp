#include "tools/inspect/documents.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include "Marbleway/core/state.h"
#include "Marbleway/platform/utf8.h"
#include "tools/inspect/query.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;
using marbleway::Store;
using marbleway::Table;

constexpr Store kStores[] = {Store::event, Store::network};
constexpr int kMaxAttempts = 100;

const char* nameOf(Store store) {
  return store == Store::event ? marbleway::DBFileName : marbleway::HTTPDBFileName;
}

/// Lets the signals that end the program wait, or come.
void holdEnd(int how) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&signals, signal);
  pthread_sigmask(how, &signals, nullptr);
}

std::string bytesOf(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

/// Copies a half-written store with its journal. A store that somebody rolls back meanwhile is
/// still whole together with the journal, as long as that is the same after the store was read.
void copyHalfWritten(const fs::path& store, const fs::path& copy) {
  const auto journalOf = [](const fs::path& file) { return fs::path(file).concat("-journal"); };
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    const std::string journal = bytesOf(journalOf(store));
    fs::copy_file(store, copy, fs::copy_options::overwrite_existing);
    if (bytesOf(journalOf(store)) != journal) continue;
    std::ofstream(journalOf(copy), std::ios::binary) << journal;
    return rollBack(copy);
  }
  throw ReadError(store.string() + ": changes too fast to be copied");
}

// A store that is whole is read where it stands, by a link.
void supply(const fs::path& store, const fs::path& copy) {
  if (isHalfWritten(store)) return copyHalfWritten(store, copy);
  fs::create_symlink(store, copy);
}

}  // namespace

PrivateFolder::PrivateFolder() {
  std::string name = (fs::temp_directory_path() / "marbleway-inspect-XXXXXX").string();
  holdEnd(SIG_BLOCK);
  if (mkdtemp(name.data()) == nullptr) throw ReadError(name + ": cannot be made for a copy");
  path_ = name;
}

PrivateFolder::~PrivateFolder() {
  std::error_code error;
  fs::remove_all(path_, error);
  holdEnd(SIG_UNBLOCK);
}

Documents::Documents(const fs::path& directory) : directory_(fs::absolute(directory)) {
  std::vector<Store> there;
  std::ranges::copy_if(kStores, std::back_inserter(there),
                       [this](Store store) { return has(store); });
  if (there.empty()) throw ReadError(directory_.string() + ": no stores here");
  const auto isWhole = [this](Store store) { return !isHalfWritten(directory_ / nameOf(store)); };
  if (std::ranges::all_of(there, isWhole)) return;
  copies_.emplace();
  for (const Store store : there) supply(directory_ / nameOf(store), pathOf(store));
}

bool Documents::has(Store store) const { return fs::exists(pathOf(store)); }

fs::path Documents::pathOf(Store store) const { return readable() / nameOf(store); }

Selection::Selection(const Documents& documents, const std::optional<std::string>& user) {
  if (!user) return;
  user_ = marbleway::repaired(*user);
  if (!documents.has(Store::event)) return;
  Query sessions(documents.pathOf(Store::event),
                 "SELECT json_group_array(DISTINCT SessionID) FROM mrbw_v2_users WHERE UserID = ?1",
                 user_);
  if (sessions.next()) sessions_ = sessions.text(0).value_or("[]");
}

std::string Selection::condition(const Table& table) const {
  if (!user_) return "1";
  if (table.columns[0] != "SessionID") return "UserID = ?1";  // a message has no session
  return "SessionID IN (SELECT value FROM json_each(?1))";
}

std::optional<std::string> Selection::parameter(const Table& table) const {
  if (!user_) return std::nullopt;
  return table.columns[0] == "SessionID" ? sessions_ : *user_;
}

}  // namespace inspect
