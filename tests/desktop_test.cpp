#include "Marbleway/desktop.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <thread>

#include "Marbleway/session/connection_type.h"
#include "tests/support/fixture.h"

namespace marbleway::desktop {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kTimeout{60};  // of what comes at once, but on a busy machine

template <class Condition>
bool comesTrue(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + kTimeout;
  while (!condition() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  return condition();
}

std::string connection() {
  return std::string(connectionType(platform::current()->statusBar->view().get()));
}

bool becomes(const std::string& type) {
  return comesTrue([&] { return connection() == type; });
}

std::size_t threads() {
  return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/task"), {}));
}

/// A bus with mock services, in processes of their own.
class Mock {
 public:
  explicit Mock(const fs::path& folder) {
    const std::string in = folder / "commands", out = folder / "printed";
    mkfifo(in.c_str(), S_IRUSR | S_IWUSR);
    mkfifo(out.c_str(), S_IRUSR | S_IWUSR);
    const std::string start = std::string(MOCK_DESKTOP " ").append(folder);
    EXPECT_EQ(std::system((start + " <" + in + " >" + out + " &").c_str()), 0);
    commands_.open(in);
    printed_.open(out);
    daemon_ = std::stoi(line().substr(4));  // "bus|" and its process
  }
  Mock(const Mock&) = delete;
  Mock& operator=(const Mock&) = delete;
  ~Mock() {
    commands_.close();
    while (!line().empty()) continue;  // until it has ended
  }

  /// Gives commands without waiting for them; `line` says what they have done.
  void run(const std::string& commands) { commands_ << commands << std::endl; }
  /// Runs a command and waits for its end.
  void set(const std::string& command) {
    run(command + "; say('set')");
    EXPECT_EQ(line(), "set") << command;
  }
  /// The next thing that a service was asked; empty at the end.
  std::string line() {
    std::string next = "done";
    while (next == "done" && std::getline(printed_, next)) continue;
    return printed_ ? next : "";
  }
  void signalBus(int signal) const { kill(daemon_, signal); }

 private:
  pid_t daemon_ = -1;
  std::ofstream commands_;
  std::ifstream printed_;
};

class DesktopTest : public ::testing::Test {
 protected:
  DesktopTest() { useBus("bus"); }
  ~DesktopTest() override {
    marbleway::shutdown();
    desktop::shutdown();
  }

  void useBus(const std::string& socket) const {
    const std::string address = "unix:path=" + (folder.path() / socket).string();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  }
  static platform::UserInterface& interface() { return *platform::current()->userInterface; }

  marbleway::testing::TemporaryDirectory folder;
};

TEST_F(DesktopTest, FollowsTheConnectionThroughRestarts) {
  std::optional<Mock> mock(std::in_place, folder.path());
  mock->set("services('network', 'modems')");
  install("test");
  EXPECT_TRUE(becomes("Wifi"));
  const std::pair<std::string, const char*> kCases[] = {
      {"'gsm', 0x4000", "LTE"}, {"'802-3-ethernet'", "None"},  {"'gsm', 0x10", "2G"},
      {"'gsm', 0x220", "4G"},   {"'cdma', 0x120", "3G"},       {"'gsm', 0x8000", "LTE"},
      {"'gsm', 1", "None"},     {"'802-11-wireless'", "Wifi"}, {"dbus.Int32(7)", "Wifi"}};
  for (const auto& [change, expected] : kCases) {
    mock->set("connect(" + change + ")");
    EXPECT_TRUE(becomes(expected)) << change << connection();
  }
  mock->set("leave('org.freedesktop.NetworkManager')");
  EXPECT_TRUE(becomes("None"));
  mock->set("services('network')");
  EXPECT_TRUE(becomes("Wifi"));
  mock.reset();  // the whole bus
  EXPECT_TRUE(becomes("None"));
  mock.emplace(folder.path()).set("services('network')");
  EXPECT_TRUE(becomes("Wifi"));
}

TEST_F(DesktopTest, ShowsAlertsAndBadgesAndOpensLinks) {
  Mock mock(folder.path());
  mock.set("services('notifications', 'portal')");
  install("org.example.Test");
  interface().showAlert("A & <b>", "1 < 2 & \xC3\xA9", "OK");
  EXPECT_EQ(mock.line(), "Notify|org.example.Test|A & <b>|1 &lt; 2 &amp; \xC3\xA9|ok/OK");
  interface().showAlert("not\xFFUTF-8", "", "OK");
  for (const int badge : {3, 0}) interface().setBadgeNumber(badge);
  EXPECT_EQ(mock.line(), "Update|application://org.example.Test.desktop|3|True");
  EXPECT_EQ(mock.line(), "Update|application://org.example.Test.desktop|0|False");
  for (const char* refused : {"", "relative", "/etc/passwd", "-x", ":x", "https:", "a+b:c",
                              "https://x/\n", "https://x/\x7F", "https://x/\x1B[2J"}) {
    interface().openURL(refused);
  }
  interface().openURL("https://example.org/?q='$(reboot)");
  EXPECT_EQ(mock.line(), "OpenURI|https://example.org/?q='$(reboot)");
}

TEST_F(DesktopTest, OpensLinksByXdgOpenWithoutAPortal) {
  const std::string opener = folder.path() / "xdg-open", opened = folder.path() / "opened";
  std::ofstream(opener)
      << "#!/bin/sh\n{ for a; do echo \"$a\"; done; grep SigBlk /proc/self/status;"
      << "ls /proc/self/fd | wc -l; } >>'" << opened << "'\n";
  fs::permissions(opener, fs::perms::owner_all);
  setenv("PATH", (folder.path().string() + ":" + getenv("PATH")).c_str(), 1);
  const Mock mock(folder.path());
  for (const char* bus : {"bus", "missing"}) {
    useBus(bus);
    install();
    fs::remove(opened);
    interface().openURL("https://example.org/;id '$(id)'");
    std::string text;
    EXPECT_TRUE(comesTrue([&] {
      std::ifstream stream(opened);
      text = {std::istreambuf_iterator<char>(stream), {}};
      return std::ranges::count(text, '\n') == 3;
    }));
    EXPECT_EQ(text, "https://example.org/;id '$(id)'\nSigBlk:\t0000000000000000\n4\n");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child that the host has not started";
    desktop::shutdown();
  }
}

TEST_F(DesktopTest, WalksThroughTheCircles) {
  Mock mock(folder.path());
  mock.set("services('location', 'notifications')");
  install("test");
  Configuration configuration;
  configuration.sites = {{{60, 10}, {0, 0}, {0, 10}}};
  configure(configuration);
  Marbleway::setLocationMonitoringEnabled(true);
  EXPECT_EQ(mock.line(), "Start|test|100|8");
  Marbleway::setLocationMonitoringEnabled(true);  // nothing is entered twice
  for (const char* place :
       {"0.0, 0.0, 1000.0",   // too vague for 700 m
        "0.0, 0.0054, 10.0",  // 600 m
        "0.0, 0.0045, 10.0",  // 500 m: neither in nor out
        "0.0, 0.0, 10.0", "'x', 10.0, 10.0", "float('nan'), 0.0, 1.0", "91.0, 0.0, 1.0",
        "5.0, 0.0, -1.0", "0.0, 0.0062, 50.0", "60.0, 10.0035, 0.0"}) {  // 195 m
    mock.run(std::string("walk(") + place + ")");
  }
  for (const char* alert : {"Entered Region|Granary Plaza", "Entered Region|Orchard Campus",
                            "Exited Region|Orchard Campus", "Entered Region|Harbor Office",
                            "Exited Region|Granary Plaza"}) {
    EXPECT_EQ(mock.line(), std::string("Notify|test|") + alert + "|ok/OK");
  }
  marbleway::shutdown();
  EXPECT_EQ(mock.line(), "Stop");
}

// They are left after 30 s of silence, which scripts/demo --desktop waits for.
TEST_F(DesktopTest, RangesBeaconsAndEntersTheirRegion) {
  Mock mock(folder.path());
  mock.set("services('bluetooth', 'notifications')");
  install("test");
  Marbleway::setLocationMonitoringEnabled(true);
  EXPECT_EQ(mock.line(), "StartDiscovery");
  for (const char* heard :
       {"1', '004c021586e4bdeac6ff442c95cbe6e557a23cf20078040200', -28",  // minor
        "2', '004c021569', -28",                                          // cut off
        "3', '004d0215' + '69' * 16 + '0001000200', -28",
        "4', '004c0215' + '69' * 16 + '0001000200', -29",
        "5', '004c0215' + '69' * 16 + '0102000300', -28"}) {
    mock.run(std::string("hear('00:00:00:00:00:0") + heard + ")");
  }
  EXPECT_EQ(mock.line(),
            "Notify|test|Entered Beacon Region|uuid:69696969-6969-6969-6969-696969696969, "
            "major:258, minor:3, rssi:-28|ok/OK");
  for (int i = 0; i < 2; ++i) {
    mock.run(
        "hear('00:00:00:00:00:06', '004c021586e4bdeac6ff442c95cbe6e557a23cf20078040100', -60)");
  }
  EXPECT_EQ(mock.line(), "Notify|test|Entered Region|beacon.testregion|ok/OK");
}

/// A bus that serves nothing, and how.
struct BadBus {
  const char* name;
  const char* socket;
};
void PrintTo(const BadBus& bus, std::ostream* output) { *output << bus.name; }

class BadBusTest : public DesktopTest, public ::testing::WithParamInterface<BadBus> {};

TEST_P(BadBusTest, CostsTheServicesAndNothingElse) {
  Mock mock(folder.path());
  mock.set("nonsense()");
  const int dead = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  (folder.path() / "dead").string().copy(static_cast<char*>(address.sun_path), 100);
  ASSERT_EQ(bind(dead, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(dead);  // the socket stays, and nobody listens
  useBus(GetParam().socket);
  const bool isSlow = std::string(GetParam().name) == "Slow";
  if (isSlow) mock.signalBus(SIGSTOP);
  const auto before = threads();
  const auto useAll = [] {
    install("test");
    interface().showAlert("title", "text", "OK");
    Marbleway::setLocationMonitoringEnabled(true);
  };
  useAll();
  EXPECT_EQ(connection(), "None");
  EXPECT_TRUE(isSlow || comesTrue([&] { return threads() == before; }));
  EXPECT_EXIT((useAll(), std::exit(0)), ::testing::ExitedWithCode(0), "");
  marbleway::shutdown();
  desktop::shutdown();
  EXPECT_EQ(threads(), before);
  mock.signalBus(SIGCONT);
}

INSTANTIATE_TEST_SUITE_P(Buses, BadBusTest,
                         ::testing::Values(BadBus{"Away", "missing"}, BadBus{"Dead", "dead"},
                                           BadBus{"Empty", "bus"}, BadBus{"Nonsense", "nonsense"},
                                           BadBus{"Slow", "bus"}),
                         [](const auto& bus) { return bus.param.name; });

TEST_F(DesktopTest, BlocksSignalsAndEndsInAForksChild) {
  Mock mock(folder.path());
  mock.set("services('network')");
  install("test");
  EXPECT_TRUE(becomes("Wifi"));
  for (const auto& task : fs::directory_iterator("/proc/self/task")) {
    if (task.path().filename() == std::to_string(getpid())) continue;
    std::ifstream status(task.path() / "status");
    for (std::string word; status >> word && word != "SigBlk:";) continue;
    std::uint64_t blocked = 0;
    status >> std::hex >> blocked;
    EXPECT_EQ(blocked >> (SIGTERM - 1) & 1U, 1U);
    EXPECT_EQ(blocked >> (SIGSEGV - 1) & 1U, 0U);
  }
  const auto installAnew = [] {
    interface().showAlert("title", "text", "OK");
    const bool isOver = connection() == "None" && threads() == 1;
    install("test");
    return isOver && becomes("Wifi");
  };
  EXPECT_EXIT((alarm(60), std::exit(installAnew() ? 0 : 1)), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(connection(), "Wifi");
}

}  // namespace
}  // namespace marbleway::desktop
