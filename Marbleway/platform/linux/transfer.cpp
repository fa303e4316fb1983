#include "Marbleway/platform/linux/transfer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "Marbleway/platform/catch_all.h"

namespace marbleway::platform {
namespace {

using Headers = std::unique_ptr<curl_slist, CurlFree<curl_slist_free_all>>;

void append(Headers& list, const std::string& line) {
  curl_slist* longer = curl_slist_append(list.get(), line.c_str());
  if (longer == nullptr) throw std::bad_alloc();
  (void)list.release();  // is the head of the longer one
  list.reset(longer);
}

/// Control characters in a header would end it and begin another, or a second request.
bool hasControlCharacter(std::string_view text) {
  return std::ranges::any_of(text, [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

Headers headerLines(const HttpRequest& request) {
  Headers list;
  // What libcurl would add by itself; a line without a value takes it away.
  for (const char* unwanted : {"Accept:", "Content-Type:", "Expect:"}) append(list, unwanted);
  for (const auto& [name, value] : request.headers) {
    if (hasControlCharacter(name) || hasControlCharacter(value)) continue;
    const bool isBlank = value.find_first_not_of(' ') == std::string::npos;
    std::string line = name;
    append(list, isBlank ? line.append(";") : line.append(": ").append(value));  // ";": no value
  }
  return list;
}

bool isLoopback(const std::string& url) {
  const std::unique_ptr<CURLU, CurlFree<curl_url_cleanup>> parsed(curl_url());
  char* text = nullptr;
  if (curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
      curl_url_get(parsed.get(), CURLUPART_HOST, &text, 0) != CURLUE_OK) {
    return false;
  }
  const std::unique_ptr<char, CurlFree<curl_free>> owner(text);
  const std::string_view host = text;
  return curl_strequal(text, "localhost") != 0 || host == "[::1]" || host.starts_with("127.");
}

/// A socket that programs started by the host do not inherit.
curl_socket_t openSocket(void* /*unused*/, curlsocktype /*purpose*/, curl_sockaddr* address) {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

/// The system's authorities come from a file that libcurl caches for a day, so that each exchange
/// but the first saves 20 ms. It caches nothing while a folder is searched too; a system without
/// such a file uses its folder.
bool hasBundle(CURL* easy) {
  const char* file = nullptr;
  return curl_easy_getinfo(easy, CURLINFO_CAINFO, &file) == CURLE_OK && file != nullptr &&
         access(file, R_OK) == 0;
}

/// Bytes of the exchange so far, in both directions; a header line counts once it is whole.
curl_off_t bytesTransferred(CURL* easy) noexcept {
  long requestHead = 0;
  long responseHead = 0;
  curl_off_t requestBody = 0;
  curl_off_t responseBody = 0;
  (void)curl_easy_getinfo(easy, CURLINFO_REQUEST_SIZE, &requestHead);
  (void)curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &requestBody);
  (void)curl_easy_getinfo(easy, CURLINFO_HEADER_SIZE, &responseHead);
  (void)curl_easy_getinfo(easy, CURLINFO_SIZE_DOWNLOAD_T, &responseBody);
  return requestHead + requestBody + responseHead + responseBody;
}

}  // namespace

Transfer::Transfer(HttpRequest request, Done done)
    : request_(std::move(request)), done_(std::move(done)), headers_(headerLines(request_)) {
  request_.maxResponseBytes = std::min(request_.maxResponseBytes, kMaxResponseBytes);
}

bool Transfer::begin(CURLM* multi, const HttpOptions& options, Time now) {
  begun_ = lastByte_ = now;
  easy_.reset(curl_easy_init());
  if (!easy_ || !prepare(easy_.get(), options) ||
      curl_multi_add_handle(multi, easy_.get()) != CURLM_OK) {
    return false;
  }
  multi_ = multi;
  return true;
}

bool Transfer::prepare(CURL* easy, const HttpOptions& options) noexcept {
  bool isSet = true;
  const auto set = [&](CURLoption option, auto value) {
    isSet = isSet && curl_easy_setopt(easy, option, value) == CURLE_OK;
  };
  const std::string_view body = request_.body.view();
  set(CURLOPT_URL, request_.url.c_str());
  set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  set(CURLOPT_POSTFIELDS, body.empty() ? "" : body.data());  // null would read standard input
  set(CURLOPT_HTTPHEADER, headers_.get());
  set(CURLOPT_WRITEFUNCTION, &Transfer::onBody);
  set(CURLOPT_WRITEDATA, this);
  set(CURLOPT_OPENSOCKETFUNCTION, &openSocket);
  set(CURLOPT_ERRORBUFFER, error_.data());

  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  if (!options.authorities.empty()) set(CURLOPT_CAINFO, options.authorities.c_str());
  if (!options.authorities.empty() || hasBundle(easy)) set(CURLOPT_CAPATH, nullptr);
  if (!options.proxy.empty()) {
    set(CURLOPT_PROXY, options.proxy.c_str());
    set(CURLOPT_NOPROXY, "");  // the environment's exceptions are from its own proxy
  }
  if (isLoopback(request_.url)) set(CURLOPT_NOPROXY, "*");

  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L);  // a name server that is silent holds up no other exchange
  // One connection an exchange: on a reused one that the server has closed, libcurl posts again.
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_FRESH_CONNECT, 1L);
  set(CURLOPT_FORBID_REUSE, 1L);
  return isSet;
}

void Transfer::end(const char* failure) noexcept {
  isComplete_ = failure == nullptr;
  if (failure == nullptr) {
    (void)curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &response_.status);
  } else if (error_[0] == '\0') {
    std::string_view(failure).copy(error_.data(), error_.size() - 1);
  }
  if (multi_ != nullptr) (void)curl_multi_remove_handle(multi_, easy_.get());
  multi_ = nullptr;
  easy_.reset();
  request_.body = Buffer();
}

void Transfer::complete() noexcept {
  const Done done = std::exchange(done_, nullptr);
  if (!isComplete_ && request_.error) catchAll([&] { *request_.error = error_.data(); });
  catchAll([&] { done(isComplete_ ? std::optional(std::move(response_)) : std::nullopt); });
}

Transfer::Time Transfer::deadline(const HttpOptions& options, Time now) noexcept {
  const curl_off_t bytes = bytesTransferred(easy_.get());
  if (std::exchange(transferredBytes_, bytes) != bytes) lastByte_ = now;
  return std::min(lastByte_ + options.silence, begun_ + options.total);
}

// A size other than the given one ends the exchange.
std::size_t Transfer::onBody(const char* bytes, std::size_t /*one*/, std::size_t size,
                             void* transfer) noexcept {
  auto& self = *static_cast<Transfer*>(transfer);
  self.receivedBytes_ += size;
  if (self.receivedBytes_ > kMaxResponseBytes) return 0;
  std::string& body = self.response_.body;
  const std::size_t wanted = std::min(size, self.request_.maxResponseBytes - body.size());
  try {
    body.append(bytes, wanted);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return size;
}

}  // namespace marbleway::platform
