#include "Marbleway/platform/windows/text.h"

#include <windows.h>

#include <array>

namespace marbleway::platform {

std::wstring wide(std::string_view text) {
  const int size = static_cast<int>(text.size());
  std::wstring result(
      static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0)), 0);
  MultiByteToWideChar(CP_UTF8, 0, text.data(), size, result.data(),
                      static_cast<int>(result.size()));
  return result;
}

std::string narrow(std::wstring_view text) {
  const int size = static_cast<int>(text.size());
  std::string result(static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), size,
                                                                  nullptr, 0, nullptr, nullptr)),
                     0);
  WideCharToMultiByte(CP_UTF8, 0, text.data(), size, result.data(), static_cast<int>(result.size()),
                      nullptr, nullptr);
  return result;
}

std::string errorText(unsigned long error, const wchar_t* module) {
  constexpr DWORD kEnglish = MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US);
  std::array<wchar_t, 256> text{};
  DWORD flags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
  const HMODULE source = module != nullptr ? GetModuleHandleW(module) : nullptr;
  if (source != nullptr) flags |= FORMAT_MESSAGE_FROM_HMODULE;
  std::wstring_view found(text.data(), FormatMessageW(flags, source, error, kEnglish, text.data(),
                                                      static_cast<DWORD>(text.size()), nullptr));
  found = found.substr(0, found.find_last_not_of(L"\r\n. ") + 1);
  return found.empty() ? "error " + std::to_string(error) : narrow(found);
}

}  // namespace marbleway::platform
