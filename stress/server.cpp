#include "stress/server.h"

#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <utility>

#include "tools/collector/batch_reader.h"

namespace marbleway::stress {
namespace {

constexpr const char* kHost = "127.0.0.1";
constexpr const char* kAccepted =
    R"({"Data":{"Config":{"PrivacyMode":false,"SessionTimeout":100000}}})";

std::string urlOf(const char* scheme, int port) {
  return std::string(scheme).append("://127.0.0.1:").append(std::to_string(port)).append("/v2/");
}

// Listens on a free port until the server is stopped.
int listen(httplib::Server& server, std::thread& thread) {
  const int port = server.bind_to_any_port(kHost);
  if (port < 0) throw std::runtime_error("no port");
  thread = std::thread([&server] { server.listen_after_bind(); });
  while (!server.is_running()) std::this_thread::yield();  // until then it cannot be stopped
  return port;
}

void stop(httplib::Server& server, std::thread& thread) {
  server.stop();
  thread.join();
}

template <auto Free>
struct FreeBy {
  void operator()(auto* object) const { Free(object); }
};

// Its own authority, for the loopback.
std::unique_ptr<X509, FreeBy<X509_free>> makeCertificate(EVP_PKEY* key) {
  std::unique_ptr<X509, FreeBy<X509_free>> certificate(X509_new());
  constexpr long kHour = 3600;
  X509_set_version(certificate.get(), X509_VERSION_3);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kHour);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 24 * kHour);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME* name = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(kHost), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), name);
  const std::unique_ptr<X509_EXTENSION, FreeBy<X509_EXTENSION_free>> address(
      X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1"));
  X509_add_ext(certificate.get(), address.get(), -1);
  if (X509_sign(certificate.get(), key, EVP_sha256()) == 0) {
    throw std::runtime_error("no certificate");
  }
  return certificate;
}

// The server with a new certificate, which is written to `authorities`.
std::unique_ptr<httplib::SSLServer> makeTLSServer(const std::filesystem::path& authorities) {
  const std::unique_ptr<EVP_PKEY, FreeBy<EVP_PKEY_free>> key(EVP_EC_gen("P-256"));
  const auto certificate = makeCertificate(key.get());
  const std::unique_ptr<BIO, FreeBy<BIO_free>> file(BIO_new_file(authorities.c_str(), "w"));
  if (!file || PEM_write_bio_X509(file.get(), certificate.get()) == 0) {
    throw std::runtime_error("no file " + authorities.string());
  }
  return std::make_unique<httplib::SSLServer>(certificate.get(), key.get());
}

}  // namespace

std::size_t kindNamed(std::string_view name) {
  const auto* const kind = std::ranges::find(collector::kKinds, name, &collector::Kind::name);
  return static_cast<std::size_t>(kind - collector::kKinds.begin());
}

Counts countsOf(std::string document) {
  Counts counts{};
  collector::readBatch(document, [&](const collector::Kind& kind, auto /*texts*/) {
    ++counts.at(static_cast<std::size_t>(&kind - collector::kKinds.data()));
  });
  return counts;
}

BatchServer::BatchServer() : server_(std::make_unique<httplib::Server>()) {
  server_->Post("/v2/mobile/init", [](const httplib::Request&, httplib::Response& response) {
    response.set_content(kAccepted, "application/json");
  });
  server_->Post("/v2/mobile/batch",
                [this](const httplib::Request& request, httplib::Response& response) {
                  take(request.body);
                  response.status = status_;
                });
  port_ = listen(*server_, listening_);
}

BatchServer::~BatchServer() { stop(*server_, listening_); }

std::string BatchServer::url() const { return urlOf("http", port_); }

std::size_t BatchServer::documents() const {
  const std::scoped_lock lock(mutex_);
  return documents_;
}

Counts BatchServer::latest() const {
  const std::scoped_lock lock(mutex_);
  return latest_;
}

std::string BatchServer::fault() const {
  const std::scoped_lock lock(mutex_);
  return fault_;
}

void BatchServer::take(const std::string& document) {
  Counts counts{};
  std::string fault;
  try {
    counts = countsOf(document);
  } catch (const std::exception& refusal) {
    fault = std::string("a document is not valid: ") + refusal.what();
  }
  const std::scoped_lock lock(mutex_);
  ++documents_;
  latest_ = counts;
  if (fault_.empty()) fault_ = std::move(fault);
}

TLSServer::TLSServer(const std::filesystem::path& directory)
    : authorities_(directory / "authorities.pem"), server_(makeTLSServer(authorities_)) {
  constexpr std::chrono::milliseconds kLate{50};
  server_->Post(".*", [this, kLate](const httplib::Request&, httplib::Response&) {
    ++requests_;
    std::this_thread::sleep_for(kLate);
  });
  port_ = listen(*server_, listening_);
}

TLSServer::~TLSServer() { stop(*server_, listening_); }

std::string TLSServer::url() const { return urlOf("https", port_); }

}  // namespace marbleway::stress
