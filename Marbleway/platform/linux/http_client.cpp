#include "Marbleway/platform/linux/http_client.h"

#include <curl/curl.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/linux/background_thread.h"
#include "Marbleway/platform/linux/transfer_loop.h"
#include "Marbleway/platform/platform.h"

namespace marbleway::platform {
namespace {

/// A loop and its thread, which has a share in it: a thread that the end of the process leaves
/// standing never finds it gone.
struct Runner {
  explicit Runner(HttpOptions options) : loop(std::move(options)) {}

  TransferLoop loop;
  std::thread thread;
};

/// The runners whose threads are at work in this process.
struct Runners {
  std::mutex lock;
  std::vector<Runner*> all;
  bool isInitialized = false;
  std::atomic<bool> areHeldForEver{false};
};

constinit NoDestructor<Runners> everRunning;

Runners& runners() { return everRunning.value; }

/// A thread in TLS while the process takes TLS down would crash it: none gets there from here on.
void atExit() {
  const std::scoped_lock lock(runners().lock);
  runners().areHeldForEver = true;
  for (Runner* runner : std::exchange(runners().all, {})) runner->loop.hold();
}

// A fork happens while no thread is in libcurl, so that the child finds none of its locks taken.
void beforeFork() {
  runners().lock.lock();
  for (Runner* runner : runners().all) runner->loop.hold();
}
void inParent() {
  for (Runner* runner : runners().all) runner->loop.release();
  runners().lock.unlock();
}
void inChild() {
  runners().all.clear();  // their threads are the parent's
  runners().lock.unlock();
}

/// Once in a process. TLS has its own exit handler by then, so that this one runs before it.
void initializeOnce() {
  if (std::exchange(runners().isInitialized, true)) return;
  (void)curl_global_init(CURL_GLOBAL_DEFAULT);  // a failure shows when no handle can be had
  (void)pthread_atfork(beforeFork, inParent, inChild);
  (void)std::atexit(atExit);
}

void live(const std::shared_ptr<Runner>& runner) {
  runner->loop.run();
  const std::scoped_lock lock(runners().lock);
  std::erase(runners().all, runner.get());
}

/// Makes sure that the runner's thread is at work. False: the process ends or has no thread left.
bool start(const std::shared_ptr<Runner>& runner) {
  if (runners().areHeldForEver) return false;
  const std::scoped_lock lock(runners().lock);
  if (runners().areHeldForEver) return false;  // since a moment ago
  if (runner->thread.joinable()) return true;
  initializeOnce();
  runners().all.reserve(runners().all.size() + 1);
  try {
    runner->thread = startBackgroundThread([runner] { live(runner); });
  } catch (const std::system_error&) {
    return false;
  }
  runners().all.push_back(runner.get());
  return true;
}

class CurlClient : public HttpClient {
 public:
  explicit CurlClient(HttpOptions options)
      : runner_(std::make_shared<Runner>(std::move(options))) {}
  CurlClient(const CurlClient&) = delete;
  CurlClient& operator=(const CurlClient&) = delete;
  ~CurlClient() override;

  void post(HttpRequest request, Transfer::Done done) override {
    std::list<Transfer> one;
    one.emplace_back(std::move(request), std::move(done));
    if (start(runner_)) return runner_->loop.take(std::move(one));
    if (runners().areHeldForEver) return;
    current()->mainLoop->post([unsent = std::make_shared<std::list<Transfer>>(std::move(one))] {
      unsent->front().tell();
    });
  }

 private:
  const std::shared_ptr<Runner> runner_;
};

CurlClient::~CurlClient() {
  if (runners().areHeldForEver || !runner_->thread.joinable()) return;
  runner_->loop.stop();
  if (runner_->thread.get_id() == std::this_thread::get_id()) {
    runner_->thread.detach();  // a `done` held the last share in the client
  } else {
    runner_->thread.join();
  }
}

}  // namespace

std::shared_ptr<HttpClient> makeCurlClient(HttpOptions options) {
  return std::make_shared<CurlClient>(std::move(options));
}

}  // namespace marbleway::platform
