#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "../http.h"

namespace marbleway::platform::testing {

/// A request as it was posted.
struct HeldRequest {
  ///@{
  /// The request's member of this name.
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::size_t maxResponseBytes = 0;
  ///@}
};

/// A network that the test controls: every request waits until the test answers it. Thread: any.
class HeldHttp : public HttpClient {
 public:
  /// Receives the response, or nothing.
  using Done = std::function<void(std::optional<HttpResponse>)>;

  /// Stores the request; `done` runs when the test answers.
  void post(HttpRequest request, Done done) override {
    const std::scoped_lock lock(mutex_);
    requests_.push_back({std::move(request.url), std::move(request.headers),
                         std::string(request.body.view()), request.maxResponseBytes});
    waiting_.push_back({std::move(done), request.maxResponseBytes, std::move(request.error)});
  }

  /// Answers the oldest waiting request, on a thread of its own, and returns when `done` has run.
  /// False if none waits.
  bool answer(HttpResponse answer) { return finish(std::move(answer), ""); }
  /// Ends the oldest waiting request without an answer, as `answer` does.
  bool fail(std::string_view error = "") { return finish(std::nullopt, error); }

  /// Every request so far, oldest first.
  std::vector<HeldRequest> requests() const {
    const std::scoped_lock lock(mutex_);
    return requests_;
  }
  /// The number of waiting requests.
  std::size_t waiting() const {
    const std::scoped_lock lock(mutex_);
    return waiting_.size();
  }

 private:
  struct Waiting {
    Done done;
    std::size_t maxResponseBytes;
    std::shared_ptr<std::string> error;
  };

  bool finish(std::optional<HttpResponse> answer, std::string_view error) {
    std::unique_lock lock(mutex_);
    if (waiting_.empty()) return false;
    const Waiting oldest = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();

    if (oldest.error) *oldest.error = error;
    if (answer && answer->body.size() > oldest.maxResponseBytes)
      answer->body.resize(oldest.maxResponseBytes);
    std::thread([&] { oldest.done(std::move(answer)); }).join();
    return true;
  }

  mutable std::mutex mutex_;
  std::vector<HeldRequest> requests_;
  std::deque<Waiting> waiting_;
};

}  // namespace marbleway::platform::testing
