#include "Marbleway/platform/windows/transfer.h"

#include <algorithm>
#include <array>
#include <climits>
#include <string_view>
#include <utility>

#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/windows/credentials.h"
#include "Marbleway/platform/windows/text.h"

namespace marbleway::platform {
namespace {

/// How much of a body is sent at a time. Each part that has been sent is an event.
constexpr std::size_t kPart = 1 << 16;

/// Control characters in a header would end it and begin another, or a second request.
bool hasControlCharacter(std::string_view text) {
  return std::ranges::any_of(text, [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

bool isLoopback(std::wstring_view host) {
  return host == L"localhost" || host == L"[::1]" || host == L"::1" || host.starts_with(L"127.");
}

template <class Value>
bool set(HINTERNET handle, DWORD option, Value value) {
  return WinHttpSetOption(handle, option, &value, sizeof(value)) != 0;
}

/// A number in the response's head; absent when it has none.
std::optional<std::uint64_t> headNumber(HINTERNET request, DWORD header) {
  std::array<wchar_t, 32> text{};
  DWORD size = sizeof(text) - sizeof(wchar_t);
  if (WinHttpQueryHeaders(request, header, nullptr, text.data(), &size, nullptr) == 0) return {};
  std::uint64_t number = 0;
  for (const wchar_t digit : std::wstring_view(text.data())) {
    if (digit < L'0' || digit > L'9' || number > UINT64_MAX / 100) return {};
    number = 10 * number + static_cast<std::uint64_t>(digit - L'0');
  }
  return number;
}

}  // namespace

Transfer::Transfer(HttpRequest request, Done done)
    : request_(std::move(request)), done_(std::move(done)) {
  request_.maxResponseBytes = std::min(request_.maxResponseBytes, kMaxResponseBytes);
}

bool Transfer::begin(HINTERNET session, const std::shared_ptr<HttpInbox>& inbox,
                     std::uint64_t number, Time now) {
  begun_ = lastEvent_ = now;
  bool isSecure = false;
  if (session == nullptr || !open(session, isSecure)) return fail(GetLastError());
  auto exchange = std::make_unique<HttpExchange>();
  exchange->inbox = inbox;
  exchange->transfer = number;
  exchange->body = std::move(request_.body);
  const std::size_t size = exchange->body.size();
  if (size > ULONG_MAX) return fail(ERROR_FILE_TOO_LARGE);
  if (!set(handle_.get(), WINHTTP_OPTION_CONTEXT_VALUE,
           reinterpret_cast<DWORD_PTR>(exchange.get())) ||
      WinHttpSetStatusCallback(handle_.get(), &onHttpStatus,
                               WINHTTP_CALLBACK_FLAG_ALL_NOTIFICATIONS,
                               0) == WINHTTP_INVALID_STATUS_CALLBACK) {
    return fail(GetLastError());
  }
  exchange_ = exchange.release();  // freed by the callback, once the handle is closed
  if (!setOptions() || !addHeaders() ||
      WinHttpSendRequest(handle_.get(), nullptr, 0, nullptr, 0, static_cast<DWORD>(size),
                         reinterpret_cast<DWORD_PTR>(exchange_)) == 0) {
    return fail(GetLastError());
  }
  return true;
}

bool Transfer::open(HINTERNET session, bool& isSecure) {
  const std::wstring url = wide(request_.url);
  URL_COMPONENTS parts{};
  parts.dwStructSize = sizeof(parts);
  parts.dwHostNameLength = parts.dwUrlPathLength = parts.dwExtraInfoLength = ULONG_MAX;
  parts.dwUserNameLength = parts.dwPasswordLength = ULONG_MAX;
  if (WinHttpCrackUrl(url.c_str(), static_cast<DWORD>(url.size()), 0, &parts) == 0) return false;
  isSecure = parts.nScheme == INTERNET_SCHEME_HTTPS;
  const std::wstring host(parts.lpszHostName, parts.dwHostNameLength);
  if (parts.dwUserNameLength > 0) {
    request_.headers.emplace_back(
        "Authorization", basicCredentials(narrow({parts.lpszUserName, parts.dwUserNameLength}),
                                          narrow({parts.lpszPassword, parts.dwPasswordLength})));
  }
  std::wstring path(parts.lpszUrlPath, parts.dwUrlPathLength);
  path.append(parts.lpszExtraInfo, parts.dwExtraInfoLength);
  path.resize(std::min(path.size(), path.find(L'#')));
  connection_.reset(WinHttpConnect(session, host.c_str(), parts.nPort, 0));
  if (!connection_) return false;
  handle_.reset(WinHttpOpenRequest(connection_.get(), L"POST", path.c_str(), nullptr,
                                   WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                   isSecure ? WINHTTP_FLAG_SECURE : 0));
  if (!handle_ || !isLoopback(host)) return handle_ != nullptr;
  WINHTTP_PROXY_INFO direct{WINHTTP_ACCESS_TYPE_NO_PROXY, nullptr, nullptr};
  return set(handle_.get(), WINHTTP_OPTION_PROXY, direct);
}

bool Transfer::setOptions() {
  constexpr DWORD kDisabled = WINHTTP_DISABLE_COOKIES | WINHTTP_DISABLE_REDIRECTS |
                              WINHTTP_DISABLE_AUTHENTICATION | WINHTTP_DISABLE_KEEP_ALIVE;
  // The loop has the time limits; WinHTTP's own would end an exchange earlier.
  (void)WinHttpSetTimeouts(handle_.get(), 0, 0, 0, 0);
  (void)set(handle_.get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, DWORD{INFINITE});
  (void)WinHttpSetOption(handle_.get(), WINHTTP_OPTION_CLIENT_CERT_CONTEXT,
                         WINHTTP_NO_CLIENT_CERT_CONTEXT, 0);
  return set(handle_.get(), WINHTTP_OPTION_DISABLE_FEATURE, kDisabled);
}

bool Transfer::addHeaders() {
  for (const auto& [name, value] : request_.headers) {
    if (hasControlCharacter(name) || hasControlCharacter(value)) continue;
    const std::wstring line = wide(name) + L": " + wide(value);
    const bool isAdded =
        WinHttpAddRequestHeaders(handle_.get(), line.c_str(), static_cast<DWORD>(line.size()),
                                 WINHTTP_ADDREQ_FLAG_ADD) != 0;
    if (!isAdded && !value.empty()) return false;  // a refused header without a value is left out
  }
  return true;
}

bool Transfer::advance(const HttpEvent& event, Time now) {
  lastEvent_ = now;
  switch (event.status) {
    case WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE:
      sentBytes_ += event.value;
      [[fallthrough]];
    case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
      return writeBody();
    case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE:
      return readHead() && awaitBody();
    case WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE:
      return event.value > 0 ? readBody(event.value) : receive(0);
    case WINHTTP_CALLBACK_STATUS_READ_COMPLETE:
      return receive(event.value);
    default:
      return fail(event.value);
  }
}

/// Sends the next part of the body, or else waits for the response.
bool Transfer::writeBody() {
  const std::string_view left = exchange_->body.view().substr(sentBytes_);
  const bool isPassed =
      left.empty()
          ? WinHttpReceiveResponse(handle_.get(), nullptr) != 0
          : WinHttpWriteData(handle_.get(), left.data(),
                             static_cast<DWORD>(std::min(left.size(), kPart)), nullptr) != 0;
  return isPassed || fail(GetLastError());
}

bool Transfer::readHead() {
  const auto status = headNumber(handle_.get(), WINHTTP_QUERY_STATUS_CODE);
  if (!status) return fail(ERROR_WINHTTP_INVALID_SERVER_RESPONSE);
  response_.status = static_cast<long>(*status);
  announcedBytes_ = headNumber(handle_.get(), WINHTTP_QUERY_CONTENT_LENGTH);
  return announcedBytes_ <= kMaxResponseBytes || fail(ERROR_FILE_TOO_LARGE);
}

/// Waits for the next bytes, however few: a read alone would wait until the block is full.
bool Transfer::awaitBody() {
  return WinHttpQueryDataAvailable(handle_.get(), nullptr) != 0 || fail(GetLastError());
}

bool Transfer::readBody(std::size_t available) {
  auto& block = exchange_->block;
  const auto size = static_cast<DWORD>(std::min(block.size(), available));
  return WinHttpReadData(handle_.get(), block.data(), size, nullptr) != 0 || fail(GetLastError());
}

bool Transfer::receive(std::size_t size) {
  receivedBytes_ += size;
  if (size == 0) {  // the end; a body that is cut off is none
    isComplete_ = announcedBytes_.value_or(receivedBytes_) == receivedBytes_;
    return isComplete_ ? false : fail(ERROR_WINHTTP_CONNECTION_ERROR);
  }
  if (receivedBytes_ > kMaxResponseBytes) return fail(ERROR_FILE_TOO_LARGE);
  const std::size_t wanted = std::min(size, request_.maxResponseBytes - response_.body.size());
  response_.body.append(exchange_->block.data(), wanted);
  return awaitBody();
}

/// Notes why there is no response. Returns false.
bool Transfer::fail(unsigned long error) {
  error_ = errorText(error, L"winhttp.dll");
  return false;
}

void Transfer::end(const std::string& failure) noexcept {
  if (!failure.empty()) catchAll([&] { error_ = failure; });
  exchange_ = nullptr;
  handle_.reset();
  connection_.reset();
}

void Transfer::complete() noexcept {
  const Done done = std::exchange(done_, nullptr);
  if (!isComplete_ && request_.error) catchAll([&] { *request_.error = error_; });
  catchAll([&] { done(isComplete_ ? std::optional(std::move(response_)) : std::nullopt); });
}

Transfer::Time Transfer::deadline(const HttpOptions& options) const noexcept {
  return std::min(lastEvent_ + options.silence, begun_ + options.total);
}

}  // namespace marbleway::platform
