#include "Marbleway/platform/linux/http_client.h"

#include <list>
#include <system_error>
#include <utility>

#include "Marbleway/platform/linux/transfer_loop.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/worker.h"

namespace marbleway::platform {
namespace {

class CurlClient : public HttpClient {
 public:
  explicit CurlClient(HttpOptions options)
      : worker_(
            [options = std::move(options)] { return std::make_shared<TransferLoop>(options); }) {}

  void post(HttpRequest request, Transfer::Done done) override {
    if (isProcessEnding) return;
    guardExit();
    std::list<Transfer> one;
    one.emplace_back(std::move(request), std::move(done));
    try {
      std::static_pointer_cast<TransferLoop>(worker_.running())->enqueue(std::move(one));
    } catch (const std::system_error&) {  // no thread
      const auto unsent = std::make_shared<std::list<Transfer>>(std::move(one));
      current()->mainLoop->post([unsent] { unsent->front().complete(); });
    }
  }

 private:
  Worker worker_;
};

}  // namespace

std::shared_ptr<HttpClient> makeCurlClient(HttpOptions options) {
  return std::make_shared<CurlClient>(std::move(options));
}

}  // namespace marbleway::platform
