#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/linux/files.h"
#include "Marbleway/platform/linux/services.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/value.h"

namespace marbleway::platform {
namespace {

/// What a settings file held when it was read.
struct Settings {
  bool areThere = false;
  Dictionary members;
};

class FileDefaults final : public UserDefaults {
 public:
  explicit FileDefaults(std::filesystem::path file) : file_(std::move(file)) {}

  std::optional<std::string> text(std::string_view key) override {
    const std::scoped_lock lock(mutex_);
    load();
    const Value* value = find(key);
    if (value == nullptr) askedInVain_.emplace(key);
    const auto* text = value != nullptr ? value->as<std::string>() : nullptr;
    return text != nullptr ? std::optional(*text) : std::nullopt;
  }
  void setText(std::string_view key, std::string_view text) override { set(key, Value(text)); }
  void setFlag(std::string_view key, bool flag) override { set(key, Value(flag)); }
  void remove(std::string_view key) override { set(key, std::nullopt); }

  void synchronize() override {
    const std::scoped_lock writing(writing_);
    if (!hasChanges()) return;
    if (file_.parent_path() == documentsDirectory()) makeDocumentsDirectory();
    // Who waits for the directory looks once in a millisecond, and gets it now.
    std::this_thread::sleep_until(lastWriting_ + kCourtesy);
    const DirectoryLock directory(file_.parent_path());
    if (!directory.isHeld()) return;
    write();
    lastWriting_ = std::chrono::steady_clock::now();
  }

 private:
  struct Change {
    std::optional<Value> value;  // absent: removed
    bool isMadeUp = false;       // for want of a text that was asked for
  };
  static constexpr std::chrono::milliseconds kCourtesy{2};

  bool hasChanges() {
    const std::scoped_lock lock(mutex_);
    load();
    return isLoaded_ && !changes_.empty();
  }

  /// Reads the file, once; as often as it takes when that is not possible.
  void load() {
    if (isLoaded_) return;
    if (file_.empty()) file_ = std::filesystem::path(documentsDirectory()) / "user-defaults.json";
    (void)refresh(false);
  }

  /// Takes over what the file holds now, below the changes of this process, and hands it out;
  /// absent when that cannot be told. Once the file has been read, what it held outlives it.
  std::optional<Settings> refresh(bool isLocked) {
    auto settings = read(isLocked);
    if (!settings) return settings;
    isLoaded_ = true;
    if (settings->areThere) stored_ = settings->members;
    std::erase_if(changes_, [this](const auto& change) {
      return change.second.isMadeUp && stored_.find(change.first) != nullptr;
    });
    return settings;
  }

  std::optional<Settings> read(bool isLocked) const {
    const FileContent content = readFile(file_);
    if (content.state == FileContent::State::unavailable) return std::nullopt;
    if (content.state == FileContent::State::missing) return Settings();
    const std::optional<Value> value = valueFromJSON(content.bytes);
    if (const auto* members = value ? value->as<Dictionary>() : nullptr)
      return Settings{true, *members};
    return isLocked ? setAside() : readLocked();
  }

  /// Another process may have put a sound file there meanwhile.
  std::optional<Settings> readLocked() const {
    const DirectoryLock directory(file_.parent_path());
    return directory.isHeld() ? read(true) : std::nullopt;
  }

  std::optional<Settings> setAside() const {
    const std::filesystem::path aside = std::filesystem::path(file_) += ".unreadable";
    if (std::rename(file_.c_str(), aside.c_str()) != 0) return std::nullopt;
    return Settings();
  }

  /// What this process has changed, applied to what the file holds now. The directory is locked.
  void write() {
    const std::scoped_lock lock(mutex_);
    const auto before = refresh(true);
    if (!before) return;
    Dictionary settings = present();
    if (settings != before->members && !replaceFile(file_, toJSON(settings).value())) return;
    stored_ = std::move(settings);
    changes_.clear();
  }

  void set(std::string_view key, std::optional<Value> value) {
    const std::scoped_lock lock(mutex_);
    load();
    const bool isMadeUp = askedInVain_.erase(std::string(key)) > 0 && value.has_value();
    changes_.insert_or_assign(std::string(key), Change{std::move(value), isMadeUp});
  }

  /// Null when there is none.
  const Value* find(std::string_view key) const {
    const auto change = changes_.find(key);
    if (change == changes_.end()) return stored_.find(key);
    return change->second.value ? &*change->second.value : nullptr;
  }

  /// In the order of the keys.
  Dictionary present() const {
    std::map<std::string_view, const Value*> values;
    for (const auto& [key, value] : stored_) values[key] = &value;
    for (const auto& [key, change] : changes_) values[key] = find(key);
    Dictionary settings;
    for (const auto& [key, value] : values) {
      if (value != nullptr) settings.set(std::string(key), *value);
    }
    return settings;
  }

  ForkSafeMutex writing_;  // one thread at a time waits for the directory; the others wait for that
  std::chrono::steady_clock::time_point lastWriting_{};

  ForkSafeMutex mutex_;  // on what follows; held while the file is read and written
  std::filesystem::path file_;
  bool isLoaded_ = false;
  Dictionary stored_;                                   // what the file held when it was last read
  std::map<std::string, Change, std::less<>> changes_;  // what this process has changed since
  std::set<std::string, std::less<>> askedInVain_;
};

}  // namespace

std::shared_ptr<UserDefaults> makeFileDefaults(const std::filesystem::path& file) {
  return std::make_shared<FileDefaults>(file.empty() ? file : std::filesystem::absolute(file));
}

}  // namespace marbleway::platform
