#include "desktop/links.h"

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>

namespace marbleway::desktop {
namespace {

bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

/// True for the answer of a bus without the portal; not for a portal that refuses or is slow.
bool isPortalMissing(sd_bus_message* reply) {
  constexpr std::array kAnswers{SD_BUS_ERROR_SERVICE_UNKNOWN,
                                SD_BUS_ERROR_NAME_HAS_NO_OWNER,
                                SD_BUS_ERROR_UNKNOWN_OBJECT,
                                SD_BUS_ERROR_UNKNOWN_INTERFACE,
                                SD_BUS_ERROR_UNKNOWN_METHOD,
                                "org.freedesktop.DBus.Error.Spawn.ChildExited",
                                "org.freedesktop.DBus.Error.Spawn.ServiceNotFound"};
  return reply == nullptr || std::any_of(kAnswers.begin(), kAnswers.end(), [&](const char* answer) {
           return sd_bus_message_is_method_error(reply, answer) > 0;
         });
}

/// Starts xdg-open in a session of its own, with no descriptor and no signal setting of this
/// process. Runs in a process that shares this one's memory, and ends with it.
int startOpener(void* url) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDWR, 0);
  posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  std::string program = "xdg-open";
  const std::array arguments{program.data(), static_cast<char*>(url), static_cast<char*>(nullptr)};
  pid_t ignored = 0;
  posix_spawnp(&ignored, program.c_str(), &actions, &attributes, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return 0;
}

/// xdg-open becomes an orphan: a host that waits for its children never sees one that it has not
/// started. The process in between has no exit signal, and is waited for until xdg-open runs.
void startOrphan(std::string url) {
  constexpr std::size_t kStackSize = 64UL * 1024;
  const auto stack = std::make_unique<std::array<char, kStackSize>>();
  const int parent =
      clone(startOpener, stack->data() + kStackSize, CLONE_VM | CLONE_VFORK, url.data());
  if (parent > 0) waitpid(parent, nullptr, __WCLONE);
}

}  // namespace

bool isOpenable(std::string_view url) noexcept {
  const auto* const colon = std::find_if_not(url.begin(), url.end(), isLetter);
  if (colon == url.begin() || colon == url.end() || *colon != ':' || colon + 1 == url.end()) {
    return false;
  }
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; };
  return std::none_of(url.begin(), url.end(), isControl);
}

void openLink(Bus& session, const std::string& url) {
  session.call(
      {"org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
       "org.freedesktop.portal.OpenURI", "OpenURI"},
      [url](sd_bus_message* reply) {
        if (isPortalMissing(reply)) startOrphan(url);
      },
      "ssa{sv}", "", url.c_str(), 0);
}

}  // namespace marbleway::desktop
