#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "Marbleway/platform/files.h"
#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/services.h"
#include "Marbleway/platform/settings_failure.h"
#include "Marbleway/platform/value.h"

namespace marbleway::platform {
namespace {

constexpr std::size_t kMaxFileBytes = 1 << 20;
constexpr std::size_t kMaxTextBytes = kMaxFileBytes - 4096;  // as JSON, beside the other settings

class FileDefaults final : public UserDefaults {
 public:
  explicit FileDefaults(std::filesystem::path file)
      : isInDocuments_(file.empty()), file_(std::move(file)) {}

  std::optional<std::string> text(std::string_view key) override {
    const std::scoped_lock lock(mutex_);
    load();
    const Value* value = find(key);
    const auto* text = value != nullptr ? value->as<std::string>() : nullptr;
    return text != nullptr ? std::optional(*text) : std::nullopt;
  }
  /// A text that would make the file larger than is read is not stored.
  void setText(std::string_view key, std::string_view text) override {
    Value value(text);
    const bool isStored = toJSON(value).value_or("").size() <= kMaxTextBytes;
    isStored ? set(key, {.value = std::move(value)}) : remove(key);
  }
  void setFlag(std::string_view key, bool flag) override { set(key, {.value = Value(flag)}); }
  void remove(std::string_view key) override { set(key, {}); }

  void setTextIfMissing(std::string_view key, std::string_view text) override {
    const std::scoped_lock lock(mutex_);
    load();
    const Value* value = find(key);
    if (value != nullptr && value->as<std::string>() != nullptr) return;
    // A key that this process has removed is missing, whatever the file holds.
    const bool keepsExisting = !changes_.contains(key);
    changes_.insert_or_assign(std::string(key),
                              Change{.value = Value(text), .keepsExisting = keepsExisting});
  }

  void synchronize() override {
    const std::scoped_lock turn(turnMutex_);
    if (!hasChanges()) return;
    if (isInDocuments_) makeDocumentsDirectory();
    const auto failed = settingsFailed.load();
    clearFileError();
    if (writeLocked() || failed == nullptr) return;
    const std::string reason = fileError();
    failed(!reason.empty() ? reason : "the file is malformed, or another process holds it");
  }

 private:
  struct Change {
    std::optional<Value> value{};  // absent: removed
    bool keepsExisting = false;    // dropped if the file holds a text
  };

  bool hasChanges() {
    const std::scoped_lock lock(mutex_);
    locate();
    return !changes_.empty();
  }

  void locate() {
    if (file_.empty()) file_ = pathFrom(documentsDirectory()) / "user-defaults.json";
  }

  /// Reads the file once. A file that cannot be read now is tried again by the next call.
  void load() {
    if (isLoaded_) return;
    locate();
    if (refresh() || !isMalformed_) return;
    const DirectoryLock directory(file_.parent_path());
    if (!directory.isBusy()) refreshLocked();
  }

  /// Reads what the file holds now into `stored_`; a missing file leaves it as it was. False when
  /// the file cannot be read, or is malformed.
  bool refresh() {
    const FileContent content = readFile(file_, kMaxFileBytes);
    isMalformed_ = false;
    if (content.state == FileContent::State::unavailable) return false;
    if (content.state != FileContent::State::missing) {
      std::optional<Value> value;
      if (content.state == FileContent::State::read) value = valueFromJSON(content.bytes);
      const auto* members = value ? value->as<Dictionary>() : nullptr;
      isMalformed_ = members == nullptr;
      if (isMalformed_) return false;
      stored_ = *members;
    }
    exists_ = content.state == FileContent::State::read;
    isLoaded_ = true;
    std::erase_if(changes_, [this](const auto& change) {
      const Value* found = change.second.keepsExisting ? stored_.find(change.first) : nullptr;
      return found != nullptr && found->template as<std::string>() != nullptr;
    });
    return true;
  }

  /// The same, with the directory locked: a malformed file is set aside.
  bool refreshLocked() {
    if (refresh()) return true;
    if (!isMalformed_) return false;
    const std::filesystem::path aside = std::filesystem::path(file_) += ".unreadable";
    return moveFile(file_, aside) && refresh();
  }

  /// Applies the changes of this process to what the file holds now.
  bool writeLocked() {
    const DirectoryLock directory(file_.parent_path());
    if (directory.isBusy()) return false;
    const std::scoped_lock lock(mutex_);
    if (!refreshLocked()) return false;
    Dictionary settings = present();
    const bool isSame = settings == (exists_ ? stored_ : Dictionary());
    if (!isSame && !replaceFile(file_, toJSON(settings).value())) return false;
    stored_ = std::move(settings);
    changes_.clear();
    return true;
  }

  void set(std::string_view key, Change change) {
    const std::scoped_lock lock(mutex_);
    changes_.insert_or_assign(std::string(key), std::move(change));
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

  const bool isInDocuments_;
  ForkSafeMutex turnMutex_;  // one thread at a time waits for the directory

  ForkSafeMutex mutex_;  // guards what follows; held while the file is read and written
  std::filesystem::path file_;
  bool isLoaded_ = false;
  bool exists_ = false;                                 // the file, when it was last read
  bool isMalformed_ = false;                            // no JSON object, or too large
  Dictionary stored_;                                   // what the file held when it was last read
  std::map<std::string, Change, std::less<>> changes_;  // what this process has changed since
};

}  // namespace

std::shared_ptr<UserDefaults> makeFileDefaults(const std::filesystem::path& file) {
  return std::make_shared<FileDefaults>(file.empty() ? file : absolutePath(file));
}

}  // namespace marbleway::platform
