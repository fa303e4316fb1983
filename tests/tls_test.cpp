#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "Marbleway/platform/linux/background_thread.h"
#include "Marbleway/platform/linux/http_client.h"
#include "tests/support/fixture.h"
#include "tests/support/loopback_server.h"

namespace marbleway::tests {
namespace {

using platform::HttpResponse;

template <auto Free>
struct FreeBy {
  void operator()(auto* object) const { (void)Free(object); }
};
using Certificate = std::unique_ptr<X509, FreeBy<X509_free>>;

constexpr long kDay = 24L * 60 * 60;  // seconds

/// The one key of every authority and every server here.
EVP_PKEY* key() {
  static const std::unique_ptr<EVP_PKEY, FreeBy<EVP_PKEY_free>> only(EVP_EC_gen("P-256"));
  return only.get();
}

struct Facts {
  std::string name;       // of the subject
  std::string issuer;     // the same: an authority
  std::string host = {};  // that the certificate is for
  long until = kDay;      // seconds from now
};

void extend(X509* certificate, int kind, const std::string& value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str());
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

Certificate certificate(const Facts& facts) {
  static long serial = 0;
  Certificate made(X509_new());
  const auto setName = [](X509_NAME* name, const std::string& text) {
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(text.c_str()), -1, -1, 0);
  };
  X509_set_version(made.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(made.get()), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(made.get()), -2 * kDay);
  X509_gmtime_adj(X509_getm_notAfter(made.get()), facts.until);
  setName(X509_get_subject_name(made.get()), facts.name);
  setName(X509_get_issuer_name(made.get()), facts.issuer);
  X509_set_pubkey(made.get(), key());
  const bool isAuthority = facts.name == facts.issuer;
  extend(made.get(), NID_basic_constraints, isAuthority ? "critical,CA:TRUE" : "CA:FALSE");
  if (!facts.host.empty()) extend(made.get(), NID_subject_alt_name, "DNS:" + facts.host);
  X509_sign(made.get(), key(), EVP_sha256());
  return made;
}

/// Greets one connection with its certificate and answers one request on it, if any comes.
class TlsServer : public RefusingPort {
 public:
  explicit TlsServer(const Certificate& own) : context_(SSL_CTX_new(TLS_server_method())) {
    SSL_CTX_use_certificate(context_.get(), own.get());
    SSL_CTX_use_PrivateKey(context_.get(), key());
    listen(socket_, 1);
    thread_ = platform::startBackgroundThread([this] { serve(); });
  }
  TlsServer(const TlsServer&) = delete;
  TlsServer& operator=(const TlsServer&) = delete;
  ~TlsServer() { finish(); }

  /// The bytes of the request that could be read, once the connection is over.
  const std::string& received() { return finish(), received_; }

 private:
  void serve() {
    const int connection = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    const std::unique_ptr<SSL, FreeBy<SSL_free>> tls(SSL_new(context_.get()));
    SSL_set_fd(tls.get(), connection);
    std::array<char, 4096> block{};
    while (SSL_accept(tls.get()) == 1 && !received_.ends_with("{}")) {
      const int got = SSL_read(tls.get(), block.data(), static_cast<int>(block.size()));
      if (got <= 0) break;
      received_.append(block.data(), static_cast<std::size_t>(got));
    }
    constexpr std::string_view kAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}";
    if (!received_.empty()) SSL_write(tls.get(), kAnswer.data(), static_cast<int>(kAnswer.size()));
    close(connection);
  }
  void finish() {
    if (!thread_.joinable()) return;
    shutdown(socket_, SHUT_RDWR);  // nobody may have come
    thread_.join();
  }

  const std::unique_ptr<SSL_CTX, FreeBy<SSL_CTX_free>> context_;
  std::string received_;
  std::thread thread_;
};

TEST(TlsTest, OnlyTrustedServersGetTheRequest) {
  const testing::TemporaryDirectory folder;
  const std::string file = folder.path() / "authority.pem";
  {
    const std::unique_ptr<FILE, FreeBy<fclose>> pem(fopen(file.c_str(), "we"));
    PEM_write_X509(pem.get(), certificate({.name = "ours", .issuer = "ours"}).get());
  }

  const struct {
    const char* name;
    Facts server;
    std::string authorities;
    bool isAnswered = false;
  } cases[] = {
      {"trusted", {"server", "ours", "localhost"}, file, true},
      {"unknown to the system", {"server", "ours", "localhost"}, ""},
      {"another authority's", {"server", "theirs", "localhost"}, file},
      {"another host's", {"server", "ours", "example.org"}, file},
      {"expired", {"server", "ours", "localhost", -1}, file},
      {"no file", {"server", "ours", "localhost"}, folder.path() / "missing.pem"},
  };
  for (const auto& [name, facts, authorities, isAnswered] : cases) {
    SCOPED_TRACE(name);
    TlsServer server(certificate(facts));
    const auto client = platform::makeCurlClient({.authorities = authorities});
    std::string url = server.url("https");
    platform::HttpRequest request{.url = url.replace(url.find("127.0.0.1"), 9, "localhost"),
                                  .headers = {{"mrbw-project-token", "token"}},
                                  .body = {}};
    request.body.append("{}");
    std::promise<std::optional<HttpResponse>> promise;
    client->post(std::move(request),
                 [&](std::optional<HttpResponse> answer) { promise.set_value(std::move(answer)); });
    const auto answer = promise.get_future().get();
    EXPECT_EQ(answer && answer->status == 200 && answer->body == "{}", isAnswered);
    EXPECT_EQ(server.received().find("mrbw-project-token: token") != std::string::npos, isAnswered);
  }
}

}  // namespace
}  // namespace marbleway::tests
