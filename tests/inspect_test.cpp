#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <thread>

#include "Marbleway/upload/batch.h"
#include "tests/support/fixture.h"

// The program, started on stores that the library has written.
namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using ::testing::HasSubstr;
using ::testing::Not;

std::string contentOf(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

/// The program with its output at the other end of a pipe.
class Running {
 public:
  Running(const std::string& arguments, const fs::path& scratch)
      : errors_(scratch / "errors"),
        pipe_(popen(("TMPDIR=" + scratch.string() + " " INSPECT_PROGRAM " " + arguments + " 2>" +
                     errors_.string())
                        .c_str(),
                    "r")) {}
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running() {
    if (pipe_ != nullptr) pclose(pipe_);
  }

  std::string take(std::size_t most) {
    std::string taken(most, '\0');
    taken.resize(std::fread(taken.data(), 1, most, pipe_));
    return taken;
  }
  std::string takeAll() {
    std::string all;
    for (std::string some = take(65536); !some.empty(); some = take(65536)) all += some;
    return all;
  }
  int status() { return WEXITSTATUS(pclose(std::exchange(pipe_, nullptr))); }
  std::string errors() const { return contentOf(errors_); }

 private:
  fs::path errors_;
  FILE* pipe_;
};

struct Outcome {
  int status;
  std::string output, errors;
};

/// Every file of a directory with its bytes and times, and the directory's own times.
std::map<std::string, std::string> stateOf(const fs::path& directory) {
  std::map<std::string, std::string> state;
  const auto note = [&](const fs::path& path) {
    struct stat facts {};
    ASSERT_EQ(stat(path.c_str(), &facts), 0);
    state[path.string()] =
        std::to_string(facts.st_mtim.tv_sec) + "." + std::to_string(facts.st_mtim.tv_nsec) + " " +
        std::to_string(facts.st_ctim.tv_sec) + "." + std::to_string(facts.st_ctim.tv_nsec) + " " +
        (fs::is_directory(path) ? "" : std::to_string(std::hash<std::string>()(contentOf(path))));
  };
  note(directory);
  for (const auto& entry : fs::directory_iterator(directory)) note(entry.path());
  return state;
}

class InspectTest : public MarblewayTest {
 protected:
  /// Runs the program on `where`, the library's directory by default.
  Outcome inspect(const std::string& arguments, const fs::path& where = {}) {
    Running program((where.empty() ? directory.path() : where).string() + " " + arguments,
                    scratch.path());
    Outcome outcome{0, program.takeAll(), ""};
    outcome.status = program.status();
    outcome.errors = program.errors();
    return outcome;
  }

  /// Two users, one after the other, and something in every kind of column.
  void recordTwoUsers() {
    beginSession();
    Marbleway::linkUser("ann", "id");
    Marbleway::setUserAttribute("Plan", "gold");
    Marbleway::linkCompany("Acme");
    Marbleway::trackEvent("Buy", {{"Value", 5}});
    Marbleway::trackPushNotification(
        {{"aps",
          Dictionary{{"mrbw_data", true}, {"mrbw_messageID", "m"}, {"mrbw_userID", "ann"}}}});
    Marbleway::unlinkUser();
    Marbleway::startSession();
    Marbleway::linkUser("o'bob", "id");
    Marbleway::trackEvent("Sell");
    query(storePath(Store::network),
          "INSERT INTO mrbw_v2_network_requests (SessionID, RequestURL, UTCTimeStamp) VALUES "
          "('"s +
              kFirstSession +
              "', 'https://a', '2026-01-01 00:00:00.000'), "
              "('other', 'https://b', '2026-01-03 00:00:00.000')");
  }

  /// What the library would send of it.
  std::string sentDocument() {
    batchData();
    return http->requests().back().body;
  }

  TemporaryDirectory scratch;
};

TEST_F(InspectTest, EachCommandShowsItsPartAndChangesNothing) {
  recordTwoUsers();
  const std::string first = kFirstSession, start = kStart;
  const struct {
    std::string arguments, output;
  } cases[] = {
      {"rows events --format csv --user ann",
       "id,SessionID,EventName,EventAttributes,UTCTimeStamp\n1," + first +
           ",Buy,\"{\"\"Value\"\":5}\"," + start + "\n"},
  };
  const auto before = stateOf(directory.path());
  for (const auto& [arguments, output] : cases) {
    const auto [status, shown, errors] = inspect(arguments);
    EXPECT_EQ(shown, output) << arguments;
    EXPECT_EQ(status, 0) << errors;
    EXPECT_EQ(errors, "") << arguments;
  }
  EXPECT_EQ(stateOf(directory.path()), before);
}

}  // namespace
}  // namespace marbleway::testing
