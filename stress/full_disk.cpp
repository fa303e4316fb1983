#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <fstream>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/core/state.h"
#include "Marbleway/upload/batch.h"
#include "stress/server.h"
#include "stress/setting.h"
#include "tests/support/fixture.h"

namespace marbleway::stress {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using tests::Fault;

void writeInto(const char* file, const std::string& text) { std::ofstream(file) << text; }

// Mounts are this process's own from here on. Who is not root becomes it, in a world of its own.
bool leaveMounts() {
  const std::string user = std::to_string(getuid());
  const std::string group = std::to_string(getgid());
  if (unshare(CLONE_NEWNS) != 0) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    writeInto("/proc/self/setgroups", "deny");
    writeInto("/proc/self/uid_map", "0 " + user + " 1");
    writeInto("/proc/self/gid_map", "0 " + group + " 1");
  }
  return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool mountSmall(const fs::path& directory) {
  return leaveMounts() && mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=256k,mode=0700") == 0;
}

// Takes every byte that is left, and gives them back when it goes.
class Ballast {
 public:
  explicit Ballast(fs::path file) : file_(std::move(file)) {
    std::ofstream stream(file_);
    const std::string block(4096, 'x');
    while (stream << block << std::flush) continue;
  }
  Ballast(const Ballast&) = delete;
  Ballast& operator=(const Ballast&) = delete;
  ~Ballast() { fs::remove(file_); }

 private:
  fs::path file_;
};

Fault soundStores(const fs::path& directory) {
  for (const char* store : {DBFileName, HTTPDBFileName}) {
    const auto words = testing::query(directory / store, "PRAGMA integrity_check");
    if (words != std::vector<std::string>{"ok"}) return words.at(0);
  }
  return {};
}

// Every operation that writes anything, on a disk that takes nothing.
void useWithoutSpace() {
  for (int i = 0; i < 200; ++i) Marbleway::trackEvent("x", {{"text", std::string(300, 'x')}});
  Marbleway::linkUser("someone@example.org", "email");
  Marbleway::linkUser("someone", "id");
  batchData();
  Marbleway::stopSession();
  Marbleway::startSession();
}

// Records up to a full disk and beyond, by `rounds` of different fullness.
Fault fillAndRecover(const fs::path& directory, BatchServer& server) {
  startLibrary(directory, server.url());
  if (!waitUntilIdle(10s)) return "the handshake is not answered";
  for (int i = 0; i < 50; ++i) Marbleway::trackEvent("old");
  {
    const Ballast ballast(directory / "ballast");
    useWithoutSpace();
    waitUntilIdle(10s);
    const auto names = eventNames(directory);
    if (std::ranges::count(names, "old") != 50) return "old rows are lost";
  }
  if (Fault fault = soundStores(directory); !fault.empty()) return fault;
  Marbleway::trackEvent("after");
  if (eventNames(directory).back() != "after") return "recording does not resume";
  const std::size_t before = server.documents();
  server.answerBatchesBy(200);
  batchData();
  if (!waitUntilIdle(10s) || server.documents() != before + 1) return "uploading does not resume";
  if (!eventNames(directory).empty()) return "what was uploaded is not deleted";
  return server.fault();
}

// A first start without space, and one with it.
Fault startWithoutSpace(const fs::path& directory, const std::string& url) {
  {
    const Ballast ballast(directory / "ballast");
    startLibrary(directory, url);
    waitUntilIdle(10s);
    useWithoutSpace();
  }
  startLibrary(directory, url);
  Marbleway::trackEvent("after");
  return eventNames(directory).back() == "after" ? soundStores(directory)
                                                 : "the next start records nothing";
}

}  // namespace

Outcome fillDisk(const Effort& effort) {
  if (!mountSmall(effort.directory)) {
    return {false, std::string("NOT RUN: no small file system: ") + std::strerror(errno)};
  }
  return repeat(effort, effort.of(20), [&](const fs::path& directory, Chance& chance) {
    const bool isFirst = chance() % 2 == 0;
    return tests::faultOfChild([&] {
      BatchServer server;
      server.answerBatchesBy(500);
      return isFirst ? startWithoutSpace(directory, server.url())
                     : fillAndRecover(directory, server);
    });
  });
}

}  // namespace marbleway::stress
