#include "stress/server.h"

#include <httplib.h>
#include <rapidjson/document.h>

#include <cstdlib>
#include <stdexcept>

namespace marbleway::stress {

Counts countsOf(const std::string& text) {
  rapidjson::Document document;
  document.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
  if (document.HasParseError() || !document.IsObject()) throw std::runtime_error("no valid JSON");
  Counts counts;
  // NOLINTNEXTLINE(clang-diagnostic-ambiguous-reversed-operator): iterators older than C++20
  for (const auto& array : document["BatchData"].GetObject()) {
    if (!array.value.Empty()) counts[array.name.GetString()] = array.value.Size();
    for (const auto& row : array.value.GetArray()) {
      if (row.MemberCount() < 3 || !row["id"].IsString()) throw std::runtime_error("a row is cut");
    }
  }
  return counts;
}

Server::Server() : server_(std::make_unique<httplib::Server>()) { listen({}); }

Server::Server(const std::filesystem::path& directory) : scheme_("https") {
  const std::string key = directory / "key.pem", certificate = directory / "authorities.pem";
  const std::string command =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -subj /CN=127.0.0.1 "
      "-addext subjectAltName=IP:127.0.0.1 -keyout " +
      key + " -out " + certificate + " 2>/dev/null";
  if (std::system(command.c_str()) != 0) throw std::runtime_error("no certificate");
  server_ = std::make_unique<httplib::SSLServer>(certificate.c_str(), key.c_str());
  listen(std::chrono::milliseconds(50));
}

Server::~Server() {
  server_->stop();
  listening_.join();
}

void Server::listen(std::chrono::milliseconds delay) {
  server_->Post("/v2/mobile/init", [delay](const httplib::Request&, httplib::Response& response) {
    std::this_thread::sleep_for(delay);
    response.set_content(R"({"Data":{"Config":{"PrivacyMode":false,"SessionTimeout":100000}}})",
                         "application/json");
  });
  server_->Post("/v2/mobile/batch",
                [this](const httplib::Request& request, httplib::Response& response) {
                  read(request.body);
                  response.status = status;
                });
  port_ = server_->bind_to_any_port("127.0.0.1");
  listening_ = std::thread([this] { server_->listen_after_bind(); });
  while (!server_->is_running()) std::this_thread::yield();  // until then it cannot be stopped
}

std::string Server::url() const {
  return scheme_ + "://127.0.0.1:" + std::to_string(port_) + "/v2/";
}

Counts Server::latest() const {
  const std::scoped_lock lock(mutex_);
  return latest_;
}

std::string Server::fault() const {
  const std::scoped_lock lock(mutex_);
  return fault_;
}

void Server::read(const std::string& document) {
  const std::scoped_lock lock(mutex_);
  try {
    latest_ = countsOf(document);
  } catch (const std::exception& refusal) {
    fault_ = refusal.what();
  }
  ++documents;
}

}  // namespace marbleway::stress
