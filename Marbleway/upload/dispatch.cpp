#include "Marbleway/upload/dispatch.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

#include "Marbleway/core/console.h"
#include "Marbleway/core/diagnostics.h"
#include "Marbleway/core/pending.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/busy_budget.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/store/store.h"

namespace marbleway {
namespace {

constexpr int kMaxInFlight = 4;

constinit Guarded<int> batchesInFlight;

void acknowledge(const CutOffs& cutOffs) {
  const BusyBudget budget;
  console::message("Data Upload Complete");
  for (std::size_t i = 0; i < cutOffs.size(); ++i) removeUpTo(kTables[i], cutOffs.at(i));
}

// Without a user's name and password.
std::string publicPart(const std::string& url) {
  const std::size_t host = url.find("://") + 3;
  const std::size_t at = url.rfind('@', url.find('/', host));
  return at == std::string::npos || at < host ? url : url.substr(0, host) + url.substr(at + 1);
}

void complete(Diagnostic& exchange, const std::optional<platform::HttpResponse>& response) {
  exchange.httpStatus = response ? response->status : 0;
  exchange.isFailure = exchange.httpStatus != 200;
  exchange.outcome = !response ? "no response" : exchange.isFailure ? "rejected" : "accepted";
  exchange.time = platform::current()->clock->now();
  const bool isBatch = exchange.kind == Diagnostic::Kind::batch;
  (isBatch ? lastBatch : lastHandshake).store(exchange);
}

}  // namespace

BatchSlot::BatchSlot()
    : isTaken_(batchesInFlight.update([](int& count) {
        if (count == kMaxInFlight) return false;
        ++count;
        return true;
      })) {}

BatchSlot::~BatchSlot() {
  // Not below 0: after a fork the child may destroy a slot of its parent.
  if (isTaken_) batchesInFlight.update([](int& count) { count = std::max(count - 1, 0); });
}

void BatchSlot::reset() noexcept { batchesInFlight.store(0); }

platform::HttpRequest requestTo(std::string_view path) {
  platform::HttpRequest request;
  request.url = apiURL.load().value_or("").append(path);
  request.headers = {{"Accept", "application/json"}, {"Content-Type", "application/json"}};
  if (auto token = internalProjectToken.load()) {
    request.headers.emplace_back("mrbw-project-token", std::move(*token));
  }
  return request;
}

void post(platform::HttpRequest request, Diagnostic::Kind kind, std::size_t rows,
          std::function<void(std::optional<platform::HttpResponse>)> done) {
  using std::chrono::steady_clock;
  Diagnostic begun{.kind = kind,
                   .url = publicPart(request.url),
                   .rows = rows,
                   .bytes = request.body.view().size()};
  const auto error = std::make_shared<std::string>();
  request.error = error;
  platform::current()->httpClient->post(
      std::move(request), [exchange = std::move(begun), error, done = std::move(done),
                           start = steady_clock::now(), pending = Pending::begin()](auto response) {
        if (pending->isCurrent()) {
          catchAll([&] {
            Diagnostic ended = exchange;
            ended.error = *error;
            ended.duration =
                std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - start);
            complete(ended, response);
            diagnostics::report(std::move(ended));
          });
        }
        done(std::move(response));
      });
}

void dispatchBatch(platform::Buffer document, std::size_t rows, CutOffs cutOffs,
                   std::shared_ptr<const BatchSlot> slot) {
  platform::HttpRequest request = requestTo("mobile/batch");
  request.body = std::move(document);
  request.maxResponseBytes = 0;  // the body is never read
  post(std::move(request), Diagnostic::Kind::batch, rows,
       [cutOffs = std::move(cutOffs), slot = std::move(slot)](const auto& response) {
         if (response && response->status == 200) catchAll([&] { acknowledge(cutOffs); });
       });
}

}  // namespace marbleway
