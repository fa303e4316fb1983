#include "Marbleway/upload/dispatch.h"

#include <utility>

#include "Marbleway/startup/console.h"
#include "Marbleway/startup/pending.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/store/store.h"
#include "platform/platform.h"
#include "platform/quietly.h"

namespace marbleway {
namespace {

void acknowledge(const BatchTimes& times) {
  console::message("Data Upload Complete");
  for (const Table& table : kTables) removeUpTo(table, times.*table.cutOff);
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

void dispatchBatch(platform::Buffer document, BatchTimes times) {
  platform::HttpRequest request = requestTo("mobile/batch");
  request.body = std::move(document);
  request.answerLimit = 0;  // what the server says is never read
  platform::current()->httpClient->post(
      std::move(request),
      [times = std::move(times), pending = Pending::begin()](const auto& answer) {
        if (answer && answer->status == 200) quietly([&] { acknowledge(times); });
      });
}

}  // namespace marbleway
