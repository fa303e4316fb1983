#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "Marbleway/platform/http.h"
#include "stress/server.h"

namespace marbleway::stress {

/// A network that reads each document at once, by the strict reader, and answers at once. Status 0:
/// no answer.
class ReadingNetwork : public platform::HttpClient {
 public:
  void post(platform::HttpRequest request,
            std::function<void(std::optional<platform::HttpResponse>)> done) override {
    const bool isBatch = request.url.ends_with("mobile/batch");
    if (isBatch) latest = countsOf(std::string(request.body.view()));
    if (isBatch) ++documents;
    const long status = isBatch ? batchStatus : startStatus;
    std::optional<platform::HttpResponse> answer;
    if (status != 0) answer = platform::HttpResponse{.status = status, .body = startBody};
    std::thread([&] { done(std::move(answer)); }).join();
  }

  long startStatus = 0, batchStatus = 0;
  std::string startBody;
  std::size_t documents = 0;
  std::optional<Counts> latest;
};

}  // namespace marbleway::stress
