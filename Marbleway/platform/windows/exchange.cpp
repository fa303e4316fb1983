#include "Marbleway/platform/windows/exchange.h"

#include <new>

namespace marbleway::platform {

void HttpInbox::add(HttpEvent event) noexcept {
  const std::scoped_lock lock(mutex);
  try {
    events.push_back(event);
  } catch (const std::bad_alloc&) {
    hasFailed = true;
  }
  changed.notify_one();
}

void CALLBACK onHttpStatus(HINTERNET /*handle*/, DWORD_PTR context, DWORD status, void* information,
                           DWORD size) noexcept {
  auto* exchange = reinterpret_cast<HttpExchange*>(context);
  if (exchange == nullptr) return;
  HttpEvent event{.transfer = exchange->transfer, .status = status};
  switch (status) {
    case WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING: {  // the last one
      const std::unique_ptr<HttpExchange> owner(exchange);
      return;
    }
    case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR:
      event.value = static_cast<const WINHTTP_ASYNC_RESULT*>(information)->dwError;
      break;
    case WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE:
    case WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE:
      event.value = *static_cast<const DWORD*>(information);
      break;
    case WINHTTP_CALLBACK_STATUS_READ_COMPLETE:
      event.value = size;
      break;
    case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
    case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE:
      break;
    default:
      return;
  }
  exchange->inbox->add(event);
}

}  // namespace marbleway::platform
