#pragma once

#include <windows.h>
#include <winhttp.h>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <type_traits>
#include <vector>

#include "Marbleway/platform/buffer.h"

namespace marbleway::platform {

struct CloseInternet {
  void operator()(HINTERNET handle) const noexcept { WinHttpCloseHandle(handle); }
};
using InternetHandle = std::unique_ptr<std::remove_pointer_t<HINTERNET>, CloseInternet>;

/// What WinHTTP reports of a request, from threads of its own: a step that is complete, or
/// WINHTTP_CALLBACK_STATUS_REQUEST_ERROR.
struct HttpEvent {
  std::uint64_t transfer = 0;  // its number
  DWORD status = 0;
  DWORD value = 0;  // an error, or a number of bytes
};

/// Where WinHTTP's threads leave their reports for the loop's, and what else wakes it. It lasts as
/// long as one of them uses it.
struct HttpInbox {
  void add(HttpEvent event) noexcept;

  std::mutex mutex;  // guards the rest
  std::condition_variable changed;
  std::vector<HttpEvent> events;
  bool hasFailed = false;  // an event is lost for want of memory
};

/// What WinHTTP uses of one request: until it reports that the handle is closed, which may be after
/// the end of the transfer.
struct HttpExchange {
  std::shared_ptr<HttpInbox> inbox;
  std::uint64_t transfer = 0;
  Buffer body;                   // is sent from here
  std::array<char, 8192> block;  // and received here
};

/// Receives WinHTTP's reports; the context is the request's HttpExchange.
void CALLBACK onHttpStatus(HINTERNET handle, DWORD_PTR context, DWORD status, void* information,
                           DWORD size) noexcept;

}  // namespace marbleway::platform
