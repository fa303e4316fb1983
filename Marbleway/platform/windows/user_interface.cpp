#include "Marbleway/platform/windows/user_interface.h"

#include <windows.h>
#include <objbase.h>
#include <shellapi.h>

#include <algorithm>
#include <array>
#include <string>
#include <system_error>
#include <thread>

#include "Marbleway/platform/background_thread.h"
#include "Marbleway/platform/windows/text.h"

namespace marbleway::platform {

// A name without a scheme, or with the scheme of a drive, would run a program of that name. Many
// schemes of the system's own programs need no "//": of those only these are opened.
bool isOpenable(std::string_view url) {
  constexpr std::array<std::string_view, 3> kOpaque{"mailto", "tel", "sms"};
  constexpr std::array<std::string_view, 7> kRefused{"file",  "javascript", "vbscript", "data",
                                                     "shell", "search-ms",  "search"};
  const std::size_t end = url.find(':');
  if (end == std::string_view::npos || end < 2) return false;
  std::string scheme(url.substr(0, end));
  for (char& letter : scheme) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  const bool isScheme =
      scheme.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789+-.") == std::string::npos &&
      scheme.front() >= 'a';
  const bool hasControls =
      std::ranges::any_of(url, [](unsigned char c) { return c <= 0x20 || c == 0x7F || c == '"'; });
  const bool isAllowed = url.substr(end).starts_with("://")
                             ? std::ranges::find(kRefused, scheme) == kRefused.end()
                             : std::ranges::find(kOpaque, scheme) != kOpaque.end();
  return isScheme && !hasControls && isAllowed;
}

namespace {

/// Runs `task` on a thread of its own, which may outlast the library's use.
template <class Task>
void detach(Task task) {
  try {
    pinModule();
    startBackgroundThread(std::move(task)).detach();
  } catch (const std::system_error&) {  // no thread: failures are ignored
  }
}

class WindowsInterface final : public UserInterface {
 public:
  void setBadgeNumber(int /*number*/) override {}  // an icon on the task bar belongs to a window

  void openURL(std::string_view url) override {
    if (!isOpenable(url)) return;
    detach([name = wide(url)] {  // starting a program takes time, and runs code of the shell
      const bool isReady =
          SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE));
      SHELLEXECUTEINFOW link{};
      link.cbSize = sizeof(link);
      link.fMask =
          SEE_MASK_NOASYNC | SEE_MASK_FLAG_NO_UI;  // this thread ends; failures are ignored
      link.lpVerb = L"open";
      link.lpFile = name.c_str();
      link.nShow = SW_SHOWNORMAL;
      (void)ShellExecuteExW(&link);
      if (isReady) CoUninitialize();
    });
  }

  void showAlert(std::string_view title, std::string_view message,
                 std::string_view /*button*/) override {  // a message box has a text of its own
    detach([caption = wide(title), text = wide(message)] {
      (void)MessageBoxW(nullptr, text.c_str(), caption.c_str(), MB_OK | MB_SETFOREGROUND);
    });
  }
};

}  // namespace

std::shared_ptr<UserInterface> makeWindowsInterface() {
  return std::make_shared<WindowsInterface>();
}

}  // namespace marbleway::platform
