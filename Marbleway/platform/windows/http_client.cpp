#include "Marbleway/platform/windows/http_client.h"

#include <system_error>
#include <utility>

#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/windows/transfer_loop.h"
#include "Marbleway/platform/worker.h"

namespace marbleway::platform {
namespace {

class WinHttpClient : public HttpClient {
 public:
  explicit WinHttpClient(HttpOptions options)
      : worker_([options] { return std::make_shared<TransferLoop>(options); }) {}

  void post(HttpRequest request, Transfer::Done done) override {
    const auto transfer = std::make_shared<Transfer>(std::move(request), std::move(done));
    try {
      std::static_pointer_cast<TransferLoop>(worker_.running())->take(transfer);
    } catch (const std::system_error&) {  // no thread
      current()->mainLoop->post([transfer] { transfer->complete(); });
    }
  }

 private:
  Worker worker_;
};

}  // namespace

std::shared_ptr<HttpClient> makeWinHttpClient(HttpOptions options) {
  return std::make_shared<WinHttpClient>(options);
}

}  // namespace marbleway::platform
