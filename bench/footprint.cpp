#include <curl/curl.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "bench/bare.h"
#include "bench/measure.h"
#include "bench/setting.h"
#include "tests/support/loopback_server.h"

namespace marbleway::bench {
namespace {

using namespace std::chrono_literals;

constexpr auto kIdle = 5s;

/// A server in a process of its own that accepts every handshake. The destructor ends it.
class ServerProcess {
 public:
  ServerProcess() {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
    process_ = fork();
    if (process_ < 0) throw std::runtime_error("no process");
    if (process_ == 0) serve(ends[1]);
    close(ends[1]);
    for (char next = 0; read(ends[0], &next, 1) == 1 && next != '\n';) url_ += next;
    close(ends[0]);
    if (url_.empty()) throw std::runtime_error("no server");
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  ~ServerProcess() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }

  const std::string& url() const { return url_; }

 private:
  [[noreturn]] static void serve(int pipeEnd) {
    tests::LoopbackServer server;
    server.answerWith([](const tests::Received&) {
      return tests::Answer{.body = R"({"Data":{"Config":{"SessionTimeout":300}}})"};
    });
    const std::string line = server.url() + "\n";
    if (write(pipeEnd, line.data(), line.size()) < 0) _exit(1);
    close(pipeEnd);
    for (;;) pause();
  }

  pid_t process_ = -1;
  std::string url_;
};

// The library's dependencies, initialized and not used.
std::vector<double> librariesAlone() {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  sqlite3_initialize();
  return {residentBytes()};
}

// The same after one request and one row on disk.
std::vector<double> librariesInUse(const std::filesystem::path& directory, const std::string& url) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* handle = curl_easy_init();
  curl_easy_setopt(handle, CURLOPT_URL, (url + "mobile/init").c_str());
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, "{}");
  curl_easy_setopt(
      handle, CURLOPT_WRITEFUNCTION,
      +[](char*, size_t size, size_t count, void*) { return size * count; });
  if (curl_easy_perform(handle) != CURLE_OK) throw std::runtime_error("no answer");
  const std::string file = directory / "bare.sqlite";
  bareRun(file.c_str(), "CREATE TABLE t (a TEXT)", nullptr, 0);
  bareRun(file.c_str(), "INSERT INTO t VALUES ('a')", nullptr, 0);
  return {residentBytes()};
}

// Resident bytes after a start-up whose handshake was answered, threads, and wake-ups while idle.
// The timers have periods of 30 s and 300 s and do not fire meanwhile.
std::vector<double> withLibrary(const std::filesystem::path& directory, const std::string& url) {
  Configuration host;
  host.documentsDirectory = directory;
  host.developmentURL = url;
  configure(std::move(host));
  const double threadsBefore = threads().count;
  Marbleway::initMarbleway(
      "bench", {{"LoggingEnabled", false}, {"SDKEnvironment", 1}, {"DispatchTime", 30}});
  if (!waitUntilIdle(10s)) throw std::runtime_error("no answer to the handshake");
  const double resident = residentBytes();
  std::this_thread::sleep_for(500ms);
  const Threads before = threads();
  std::this_thread::sleep_for(kIdle);
  return {resident, before.count - threadsBefore, threads().switches - before.switches};
}

}  // namespace

void measureFootprint(const Places& places) {
  const ServerProcess server;
  const WorkDirectory directory(places.disk);
  const double alone = inChild(librariesAlone).at(0) / 1e6;
  const double inUse =
      inChild([&] { return librariesInUse(directory.path(), server.url()); }).at(0) / 1e6;
  const auto ours = inChild([&] { return withLibrary(directory.path(), server.url()); });
  const double resident = ours.at(0) / 1e6;

  print({.name = "threads more, handshake answered",
         .goal = "2",
         .ours = number(ours.at(1)),
         .met = metIf(ours.at(1) <= 2),
         .note = "the main loop, the network, and one for crashes"});
  print({.name = "resident, handshake answered",
         .goal = "bare + 2.5 MB",
         .ours = number(resident, " MB"),
         .bare = number(alone, " MB"),
         .met = metIf(resident - alone <= 2.5),
         .note = number(resident - alone, " MB more than the libraries initialized; ") +
                 number(resident - inUse, " MB more than the libraries used once")});
  print({.name = "wake-ups in 5 s of idleness",
         .goal = "0",
         .ours = number(ours.at(2)),
         .met = metIf(ours.at(2) == 0),
         .note = "timers at 30 s and 300 s"});
}

}  // namespace marbleway::bench
