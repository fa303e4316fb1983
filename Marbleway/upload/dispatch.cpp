#include "Marbleway/upload/dispatch.h"

#include <algorithm>
#include <utility>

#include "Marbleway/core/console.h"
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

void dispatchBatch(platform::Buffer document, CutOffs cutOffs,
                   std::shared_ptr<const BatchSlot> slot) {
  platform::HttpRequest request = requestTo("mobile/batch");
  request.body = std::move(document);
  request.maxResponseBytes = 0;  // the body is never read
  platform::current()->httpClient->post(std::move(request),
                                        [cutOffs = std::move(cutOffs), slot = std::move(slot),
                                         pending = Pending::begin()](const auto& response) {
                                          if (response && response->status == 200)
                                            catchAll([&] { acknowledge(cutOffs); });
                                        });
}

}  // namespace marbleway
