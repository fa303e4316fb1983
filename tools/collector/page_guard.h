#pragma once

#include <httplib.h>

#include <string>

namespace collector {

/// Who may see the page and what it reads.
///
/// A browser is kept from asking in the name of another site: the Host header must name this
/// machine as it was reached on purpose, and what changes something must come from this page.
/// Beyond loopback the page's token is asked for: once as "?token=" of the page itself, from then
/// on as a cookie, or as "Authorization: Bearer".
class PageGuard {
 public:
  /// `host` is the address that is listened on. An empty `token` means none is needed.
  PageGuard(std::string host, std::string token);

  /// Whether the request may be answered; else `response` says why not (401 or 403).
  bool admits(const httplib::Request& request, httplib::Response& response) const;

  bool needsToken() const { return !token_.empty(); }

 private:
  bool isOwnHost(const httplib::Request& request) const;
  bool knowsToken(const httplib::Request& request, httplib::Response& response) const;

  const std::string host_, token_;
};

/// Whether only programs on this machine reach `host`.
bool isLoopback(const std::string& host);

/// Answers with {"error": fault}.
void refuse(httplib::Response& response, int status, const std::string& fault);

}  // namespace collector
