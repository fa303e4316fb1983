#include <rapidjson/document.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <random>

#include "Marbleway/platform/linux/services.h"
#include "Marbleway/platform/platform.h"
#include "stress/setting.h"

namespace marbleway::stress {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using tests::Child;
using tests::Fault;

constexpr const char* kFile = "user-defaults.json";
constexpr const char* kIdentifier = "Marbleway_VendorID";

// The texts of a settings file by a strict reader; absent when it is torn.
class Settings {
 public:
  explicit Settings(const fs::path& file) {
    std::ifstream stream(file);
    const std::string bytes(std::istreambuf_iterator<char>(stream), {});
    document_.Parse<rapidjson::kParseValidateEncodingFlag>(bytes.data(), bytes.size());
  }

  bool isTorn() const { return document_.HasParseError() || !document_.IsObject(); }
  bool has(const std::string& key, const std::string& text) const {
    const auto found = document_.FindMember(key.c_str());
    return found != document_.MemberEnd() && found->value.IsString() &&
           found->value.GetString() == text;
  }

 private:
  rapidjson::Document document_;
};

// Settings with the keys "0", "1", and so on after `prefix`, each told once it has been written.
void writeAndTell(const fs::path& file, const std::string& prefix, int count, int told) {
  const auto defaults = platform::makeFileDefaults(file);
  for (int i = 0; i < count; ++i) {
    defaults->setText(prefix + std::to_string(i), "value of " + std::to_string(i));
    defaults->synchronize();
    if (write(told, ".", 1) != 1) return;
  }
}

int missingOf(const Settings& settings, const std::string& prefix, int count) {
  int missing = 0;
  for (int i = 0; i < count; ++i) {
    const bool isThere = settings.has(prefix + std::to_string(i), "value of " + std::to_string(i));
    if (!isThere) ++missing;
  }
  return missing;
}

Fault killWriting(const fs::path& directory, Chance& chance) {
  const fs::path file = directory / kFile;
  Child child([&](int told) { writeAndTell(file, "", 1000, told); });
  const auto atLeast = std::uniform_int_distribution<std::size_t>(1, 20)(chance);
  std::size_t written = child.told(atLeast).size();
  written += child.told(1000, instantBefore(10ms, chance)).size();
  child.kill();
  child.wait();
  written += child.told(1000).size();

  const auto next = platform::makeFileDefaults(file);
  next->setText("after", "the kill");
  next->synchronize();
  const Settings settings(file);
  if (settings.isTorn() || fs::exists(file.string() + ".unreadable")) return "the file is torn";
  if (!settings.has("after", "the kill")) return "nothing can be written afterwards";
  const int missing = missingOf(settings, "", static_cast<int>(written));
  return missing == 0 ? "" : std::to_string(missing) + " keys are lost";
}

// What keeps a file from being read for a time; `end` lets it be read again.
struct Obstacle {
  const char* name;
  std::function<void(const fs::path&file)> begin, end;
};

void limitDescriptors(rlim_t most) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min(most, limit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &limit);
}

// Reading /proc/self/mem from its start is EIO.
const std::array<Obstacle, 3> kObstacles{{
    {"EIO",
     [](const fs::path& file) {
       fs::rename(file, file.string() + ".kept");
       fs::create_symlink("/proc/self/mem", file);
     },
     [](const fs::path& file) { fs::rename(file.string() + ".kept", file); }},
    {"EMFILE", [](const fs::path& /*file*/) { limitDescriptors(0); },
     [](const fs::path& /*file*/) { limitDescriptors(256); }},
    {"EACCES",
     [](const fs::path& file) {
       chmod(file.c_str(), 0);
       if (getuid() == 0) (void)!setuid(65534);  // root reads whatever the mode
     },
     [](const fs::path& file) { chmod(file.c_str(), S_IRUSR | S_IWUSR); }},
}};

Fault failReading(const fs::path& directory, const Obstacle& obstacle) {
  const fs::path file = directory / kFile;
  std::ofstream(file) << R"({"Marbleway_VendorID":"mine"})";
  if (getuid() == 0 &&
      (chown(directory.c_str(), 65534, 65534) != 0 || chown(file.c_str(), 65534, 65534) != 0)) {
    return "no rights to give away";
  }
  obstacle.begin(file);
  platform::install({.userDefaults = platform::makeFileDefaults(file)});
  const auto services = platform::current();
  const std::string meanwhile = services->device->vendorIdentifier();
  if (meanwhile == "mine") return std::string(obstacle.name) + " does not come";
  obstacle.end(file);

  services->userDefaults->setText("another", "key");
  services->userDefaults->synchronize();
  const Settings settings(file);
  if (settings.isTorn()) return "the file is torn";
  if (!settings.has(kIdentifier, "mine")) return "a new identity is in the file";
  if (!settings.has("another", "key")) return "nothing can be written afterwards";
  return services->device->vendorIdentifier() == "mine" ? "" : "a new identity is in use";
}

}  // namespace

Outcome writeDefaultsInTwoProcesses(const Effort& effort) {
  const fs::path file = effort.directory / kFile;
  const int count = effort.of(500);
  const auto writer = [&](const char* prefix) {
    return [&file, prefix, count](int told) { writeAndTell(file, prefix, count, told); };
  };
  Child one(writer("one "), 600s);
  Child other(writer("other "), 600s);
  std::size_t written = 0;
  int readings = 0;
  int torn = 0;
  const std::size_t all = 2 * static_cast<std::size_t>(count);
  for (const auto end = std::chrono::steady_clock::now() + 600s;
       written < all && std::chrono::steady_clock::now() < end;) {
    written += one.told(all, 1ms).size() + other.told(all, 1ms).size();
    if (!fs::exists(file)) continue;
    ++readings;
    if (Settings(file).isTorn()) ++torn;
  }
  const bool areDone = one.wait() == 0 && other.wait() == 0;
  const Settings settings(file);
  const int lost = missingOf(settings, "one ", count) + missingOf(settings, "other ", count);
  return {areDone && written == all && torn == 0 && !settings.isTorn() && lost == 0,
          std::to_string(lost) + " of " + std::to_string(all) + " keys lost, " +
              std::to_string(torn) + " of " + std::to_string(readings) + " readings torn"};
}

Outcome killDefaults(const Effort& effort) { return repeat(effort, effort.of(100), killWriting); }

Outcome failReadingDefaults(const Effort& effort) {
  std::size_t next = 0;
  return repeat(
      effort, std::max(3, effort.of(30)), [&](const fs::path& directory, Chance& /*chance*/) {
        const Obstacle& obstacle = kObstacles.at(next++ % kObstacles.size());
        const Fault fault = tests::faultOfChild([&] { return failReading(directory, obstacle); });
        return fault.empty() ? fault : obstacle.name + (": " + fault);
      });
}

}  // namespace marbleway::stress
