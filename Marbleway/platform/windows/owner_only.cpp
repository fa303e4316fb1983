#include "Marbleway/platform/windows/owner_only.h"

#include <sddl.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string>

#include "Marbleway/platform/windows/handle.h"

namespace marbleway::platform {
namespace {

/// The user's security identifier as a text; empty if the system does not tell.
std::wstring userIdentifier() {
  HANDLE opened = nullptr;
  if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &opened) == 0) return {};
  const HandleOwner token(opened);
  alignas(TOKEN_USER) std::array<std::byte, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> block{};
  DWORD size = 0;
  wchar_t* text = nullptr;
  if (GetTokenInformation(token.get(), TokenUser, block.data(), static_cast<DWORD>(block.size()),
                          &size) == 0 ||
      ConvertSidToStringSidW(reinterpret_cast<const TOKEN_USER*>(block.data())->User.Sid, &text) ==
          0) {
    return {};
  }
  const std::unique_ptr<wchar_t, FreeLocally> owner(text);
  return text;
}

PSECURITY_DESCRIPTOR makeDescriptor() {
  const std::wstring user = userIdentifier();
  PSECURITY_DESCRIPTOR made = nullptr;
  if (user.empty()) return nullptr;
  // A list that inherits nothing, and one entry: full access, also to what is created inside.
  const std::wstring access = L"D:P(A;OICI;FA;;;" + user + L")";
  (void)ConvertStringSecurityDescriptorToSecurityDescriptorW(access.c_str(), SDDL_REVISION_1, &made,
                                                             nullptr);
  return made;
}

}  // namespace

SECURITY_ATTRIBUTES* ownerOnly() {
  static SECURITY_ATTRIBUTES attributes{sizeof(attributes), makeDescriptor(), FALSE};
  return attributes.lpSecurityDescriptor != nullptr ? &attributes : nullptr;
}

}  // namespace marbleway::platform
