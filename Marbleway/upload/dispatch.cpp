#include "Marbleway/upload/dispatch.h"

#include <utility>

#include "Marbleway/core/console.h"
#include "Marbleway/core/pending.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/store/store.h"

namespace marbleway {
namespace {

void acknowledge(const CutOffs& cutOffs) {
  console::message("Data Upload Complete");
  for (std::size_t i = 0; i < cutOffs.size(); ++i) removeUpTo(kTables[i], cutOffs.at(i));
}

}  // namespace

platform::HttpRequest requestTo(std::string_view path) {
  platform::HttpRequest request;
  request.url = apiURL.load().value_or("").append(path);
  request.headers = {{"Accept", "application/json"}, {"Content-Type", "application/json"}};
  if (auto token = internalProjectToken.load()) {
    request.headers.emplace_back("mrbw-project-token", std::move(*token));
  }
  return request;
}

void dispatchBatch(platform::Buffer document, CutOffs cutOffs) {
  platform::HttpRequest request = requestTo("mobile/batch");
  request.body = std::move(document);
  request.maxResponseBytes = 0;  // the body is never read
  platform::current()->httpClient->post(
      std::move(request),
      [cutOffs = std::move(cutOffs), pending = Pending::begin()](const auto& response) {
        if (response && response->status == 200) catchAll([&] { acknowledge(cutOffs); });
      });
}

}  // namespace marbleway
