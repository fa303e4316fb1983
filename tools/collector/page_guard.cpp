#include "tools/collector/page_guard.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>
#include <utility>

#include "tools/collector/refusal.h"

namespace collector {
namespace {

bool isAddress(const std::string& text) {
  std::array<unsigned char, sizeof(in6_addr)> bytes{};
  return inet_pton(AF_INET, text.c_str(), bytes.data()) == 1 ||
         inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1;
}

/// "name", "name:port" or "[address]:port" without the port and the brackets.
std::string hostOf(const std::string& text) {
  if (text.starts_with("[")) return text.substr(1, text.find(']') - 1);
  return text.substr(0, text.find(':'));
}

/// Takes the same time for every text of one length.
bool isSame(std::string_view left, std::string_view right) {
  if (left.size() != right.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < left.size(); ++i) {
    difference |= static_cast<unsigned char>(left[i]) ^ static_cast<unsigned char>(right[i]);
  }
  return difference == 0;
}

/// Browsers share cookies between the ports of a host, so the name contains the port.
std::string cookieName(const httplib::Request& request) {
  return "collector_" + std::to_string(request.local_port);
}

/// The cookie's value, or nothing.
std::string cookieOf(const httplib::Request& request) {
  const std::string cookies = "; " + request.get_header_value("Cookie");
  const std::string name = "; " + cookieName(request) + "=";
  const auto at = cookies.find(name);
  if (at == cookies.npos) return {};
  const auto start = at + name.size();
  return cookies.substr(start, cookies.find(';', start) - start);
}

}  // namespace

bool isLoopback(const std::string& host) {
  return host == "localhost" || host == "::1" || (host.starts_with("127.") && isAddress(host));
}

bool isEveryAddress(const std::string& host) { return host == "0.0.0.0" || host == "::"; }

std::string machineName() {
  std::array<char, 256> name{};
  gethostname(name.data(), name.size() - 1);
  std::string text = name.data();
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string authority(const std::string& host, int port) {
  const std::string suffix = ":" + std::to_string(port);
  return host.find(':') == host.npos ? host + suffix : "[" + host + "]" + suffix;
}

void refuse(httplib::Response& response, int status, const std::string& fault) {
  response.status = status;
  response.set_content(errorBody(fault), "application/json");
}

PageGuard::PageGuard(std::string host, std::string token, std::vector<std::string> names)
    : host_(std::move(host)), token_(std::move(token)), names_(std::move(names)) {}

bool PageGuard::admits(const httplib::Request& request, httplib::Response& response) const {
  if (!isOwnHost(request)) {
    refuse(response, 403, "the header \"Host\" names another machine");
    return false;
  }
  const std::string origin = request.get_header_value("Origin");
  if (request.has_header("Origin") && origin != "http://" + request.get_header_value("Host")) {
    refuse(response, 403, "the request comes from another site");
    return false;
  }
  if (!needsToken() || knowsToken(request, response)) return true;
  refuse(response, 401, "the page's token is needed, as /?token=...");
  response.set_header("WWW-Authenticate", "Bearer");
  return false;
}

/// A name that resolves to this machine is not its own, since any site can make one. Where every
/// address is listened on, each address is its own, and so is the name that the machine gives
/// itself.
bool PageGuard::isOwnHost(const httplib::Request& request) const {
  if (request.get_header_value_count("Host") != 1) return false;
  const std::string host = hostOf(request.get_header_value("Host"));
  if (isLoopback(host) || host == host_) return true;
  if (std::ranges::find(names_, host) != names_.end()) return true;
  return isEveryAddress(host_) && (isAddress(host) || host == machineName_);
}

bool PageGuard::knowsToken(const httplib::Request& request, httplib::Response& response) const {
  if (isSame(cookieOf(request), token_)) return true;
  if (isSame(request.get_header_value("Authorization"), "Bearer " + token_)) return true;
  if (request.path != "/" || !isSame(request.get_param_value("token"), token_)) return false;
  response.set_header("Set-Cookie",
                      cookieName(request) + "=" + token_ + "; Path=/; SameSite=Strict; HttpOnly");
  return true;
}

}  // namespace collector
