#include <windows.h>
#include <wincrypt.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>

#include <gtest/gtest.h>

#include "Marbleway/platform/files.h"
#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/services.h"
#include "Marbleway/platform/windows/http_client.h"
#include "Marbleway/platform/windows/user_interface.h"
#include "Marbleway/store/store.h"

namespace marbleway::platform {
namespace {

namespace fs = std::filesystem;

TEST(WindowsPlatformTest, OpensAbsoluteLinksOnly) {
  for (const char* url : {"https://example.com/a?b#c", "todo://list", "mailto:a@example.com"}) {
    EXPECT_TRUE(isOpenable(url)) << url;
  }
  for (const char* url : {"", "cmd", "c:/windows/system32/cmd.exe", "FILE:///c:/a.exe", "\\\\host\\a",
                          "a b://c", "https://a\"b", "javascript:alert(1)", "search-ms:a"}) {
    EXPECT_FALSE(isOpenable(url)) << url;
  }
}

TEST(WindowsPlatformTest, StoresLieInLongAndUnicodePaths) {
  const fs::path root = fs::temp_directory_path() / std::to_string(GetCurrentProcessId());
  setDocumentsDirectory(root / L"\u00E4\u65E5\U0001F600" / std::wstring(120, L'a') /
                        std::wstring(120, L'b'));
  makeDocumentsDirectory();
  createStores();
  for (const Store store : {Store::event, Store::network}) {
    EXPECT_EQ(kindOf(pathOf(store).c_str()), FileKind::filled);
  }
  for (const char* text : {"first", "second"}) {
    makeFileDefaults()->setText("unwritten", "lost");
    const auto settings = makeFileDefaults();
    settings->setText("key", text);
    settings->synchronize();
    EXPECT_EQ(makeFileDefaults()->text("key"), text);
  }
  fs::remove_all(absolutePath(root));
}

TEST(WindowsPlatformTest, LinesThatNobodyReadsBlockNobody) {
  HANDLE reader = nullptr, writer = nullptr, former = GetStdHandle(STD_ERROR_HANDLE);
  ASSERT_NE(CreatePipe(&reader, &writer, nullptr, 4096), 0);
  SetStdHandle(STD_ERROR_HANDLE, writer);
  const auto console = makeStandardError();
  for (int i = 0; i < 1000; ++i) console->writeLine(std::string(1000, 'x'));
  SetStdHandle(STD_ERROR_HANDLE, former);
}

// scripts/test-windows runs the server, whose authority only the second request trusts.
TEST(WindowsPlatformTest, AnUnknownAuthorityGetsNothing) {
  const char* url = std::getenv("TLS_SERVER");
  const char* file = std::getenv("TLS_CERTIFICATE");
  ASSERT_TRUE(url != nullptr && file != nullptr);
  const auto status = [&] {
    std::promise<long> answer;
    makeWinHttpClient()->post({.url = url}, [&](const std::optional<HttpResponse>& response) {
      answer.set_value(response ? response->status : 0);
    });
    return answer.get_future().get();
  };
  EXPECT_EQ(status(), 0);

  const auto bytes = readFile(pathFrom(file), 1 << 16).bytes;
  const HCERTSTORE store = CertOpenSystemStoreW(0, L"ROOT");
  ASSERT_NE(CertAddEncodedCertificateToStore(
                store, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(bytes.data()),
                static_cast<DWORD>(bytes.size()), CERT_STORE_ADD_ALWAYS, nullptr),
            0);
  CertCloseStore(store, 0);
  EXPECT_EQ(status(), 200);
}

}  // namespace
}  // namespace marbleway::platform
