#pragma once

#include <httplib.h>

#include <string>
#include <vector>

namespace collector {

/// Whether only programs on this machine reach `host`.
bool isLoopback(const std::string& host);

/// Whether `host` stands for all addresses of the machine, none of which a browser can open by it.
bool isEveryAddress(const std::string& host);

/// The name that the machine gives itself, in small letters as browsers send it.
std::string machineName();

/// "host:port" as in an address, an address of IPv6 in brackets.
std::string authority(const std::string& host, int port);

/// Decides who may see the page and what it reads.
///
/// Requests that other sites make a browser send are refused: the Host header must name this
/// machine or a name allowed on the command line, and an Origin header the same. Beyond
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

  const std::string host_, token_, machineName_ = machineName();
  const std::vector<std::string> names_;
};

/// Answers with {"error": fault}.
void refuse(httplib::Response& response, int status, const std::string& fault);

}  // namespace collector
