#pragma once

#include <httplib.h>

#include <string>
#include <vector>

namespace collector {

/// Decides who may see the page and what it reads.
///
/// Requests that other sites make a browser send are refused: the Host header must name this
/// machine or a name allowed on the command line, and a POST must come from this page. Beyond
/// loopback the page's token is required: once as "?token=" of the page itself, then as a cookie,
/// or as "Authorization: Bearer".
class PageGuard {
 public:
  /// `host` is the address that is listened on, `names` are other names for it. An empty `token`
  /// means none is needed.
  PageGuard(std::string host, std::string token, std::vector<std::string> names);

  /// Whether the request may be answered; else `response` says why not (401 or 403).
  bool admits(const httplib::Request& request, httplib::Response& response) const;

  bool needsToken() const { return !token_.empty(); }

 private:
  bool isOwnHost(const httplib::Request& request) const;
  bool knowsToken(const httplib::Request& request, httplib::Response& response) const;

  const std::string host_, token_;
  const std::vector<std::string> names_;
};

/// Whether only programs on this machine reach `host`.
bool isLoopback(const std::string& host);

/// Answers with {"error": fault}.
void refuse(httplib::Response& response, int status, const std::string& fault);

}  // namespace collector
