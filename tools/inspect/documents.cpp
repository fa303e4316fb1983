#include "tools/inspect/documents.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "Marbleway/startup/state.h"
#include "platform/utf8.h"
#include "tools/inspect/query.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;
using marbleway::Store;
using marbleway::Table;

constexpr Store kStores[] = {Store::event, Store::network};
constexpr int kMostAttempts = 100;

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

fs::path makePrivateDirectory() {
  std::string name = (fs::temp_directory_path() / "marbleway-inspect-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw ReadError(name + ": cannot be made for a copy");
  return name;
}

std::string bytesOf(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

/// Copies a half-written store with its journal. A store that somebody rolls back meanwhile is
/// still whole together with the journal, as long as that is the same after the store was read.
void copyHalfWritten(const fs::path& store, const fs::path& copy) {
  const auto journalOf = [](const fs::path& file) { return fs::path(file).concat("-journal"); };
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    const std::string journal = bytesOf(journalOf(store));
    fs::copy_file(store, copy, fs::copy_options::overwrite_existing);
    if (bytesOf(journalOf(store)) != journal) continue;
    std::ofstream(journalOf(copy), std::ios::binary) << journal;
    return rollBack(copy);
  }
  throw ReadError(store.string() + ": changes too fast to be copied");
}

}  // namespace

Documents::Documents(const fs::path& directory) : directory_(fs::absolute(directory)) {
  bool isAnyHalfWritten = false;
  bool isThere = false;
  for (const Store store : kStores) {
    if (!has(store)) continue;
    isThere = true;
    isAnyHalfWritten |= isHalfWritten(pathOf(store));
  }
  if (!isThere) throw ReadError(directory_.string() + ": no stores here");
  if (isAnyHalfWritten) makeCopies();
}

Documents::~Documents() {
  if (copies_.empty()) return;
  std::error_code error;
  fs::remove_all(copies_, error);
  holdEnd(SIG_UNBLOCK);
}

// A store that is whole is read where it stands, by a link beside the copies.
void Documents::makeCopies() {
  holdEnd(SIG_BLOCK);
  const fs::path copies = makePrivateDirectory();
  for (const Store store : kStores) {
    const fs::path file = directory_ / nameOf(store);
    if (!has(store)) continue;
    if (isHalfWritten(file)) {
      copyHalfWritten(file, copies / nameOf(store));
    } else {
      fs::create_symlink(file, copies / nameOf(store));
    }
  }
  copies_ = copies;
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
