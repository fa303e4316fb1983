#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <list>
#include <string>
#include <utility>

#include "system_client.h"
#include "tests/support/loopback_server.h"

namespace marbleway::tests {

using platform::HttpClient;
using platform::HttpRequest;
using Result = std::optional<platform::HttpResponse>;

/// What became of one request.
struct Call {
  std::atomic<int> runs = 0;
  std::promise<Result> promise;
  std::future<Result> response = promise.get_future();
};

inline HttpRequest requestTo(std::string url, std::string_view body = "{}") {
  HttpRequest request{.url = std::move(url), .headers = {}, .body = {}};
  request.body.append(body);
  return request;
}

class HttpClientTest : public ::testing::Test {
 protected:
  Call& post(HttpRequest request) {
    Call& call = calls.emplace_back();
    client->post(std::move(request), [&call](Result response) {
      if (++call.runs == 1) call.promise.set_value(std::move(response));
    });
    return call;
  }
  Result responseTo(HttpRequest request) { return post(std::move(request)).response.get(); }

  void TearDown() override {
    client.reset();
    for (const Call& call : calls) EXPECT_EQ(call.runs, 1);
  }

  LoopbackServer server;
  std::shared_ptr<HttpClient> client = makeClient();
  std::list<Call> calls;
};

}  // namespace marbleway::tests
