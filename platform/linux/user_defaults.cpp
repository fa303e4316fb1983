#include <cstdio>
#include <map>
#include <mutex>
#include <utility>

#include "platform/linux/files.h"
#include "platform/linux/services.h"
#include "platform/platform.h"
#include "platform/value.h"

namespace marbleway::platform {
namespace {

class FileDefaults final : public UserDefaults {
 public:
  explicit FileDefaults(std::filesystem::path file) : file_(std::move(file)) {}

  std::optional<std::string> text(std::string_view key) override {
    const std::scoped_lock lock(lock_);
    load();
    const auto found = values_.find(key);
    if (found == values_.end() || !found->second) return std::nullopt;
    const auto* text = found->second->as<std::string>();
    return text != nullptr ? std::optional(*text) : std::nullopt;
  }
  void setText(std::string_view key, std::string_view text) override { set(key, Value(text)); }
  void setFlag(std::string_view key, bool flag) override { set(key, Value(flag)); }
  void remove(std::string_view key) override { set(key, std::nullopt); }

  void synchronize() override {
    const std::scoped_lock lock(lock_);
    load();
    Dictionary settings = present();
    if (!isLoaded_ || settings == stored_) return;
    if (file_.parent_path() == documentsDirectory()) makeDocumentsDirectory();
    if (replaceFile(file_, toJSON(settings).value())) stored_ = std::move(settings);
  }

 private:
  /// Reads the file, once; as often as it takes when that is not possible.
  void load() {
    if (isLoaded_) return;
    if (file_.empty()) file_ = documentsDirectory() / "user-defaults.json";
    const FileContent content = readFile(file_);
    if (content.state == FileContent::State::unavailable) return;
    if (content.state == FileContent::State::read) {
      const std::optional<Value> read = valueFromJSON(content.bytes);
      const auto* members = read ? read->as<Dictionary>() : nullptr;
      if (members == nullptr && !setAside()) return;
      if (members != nullptr) stored_ = *members;
      values_.insert(stored_.begin(), stored_.end());  // what has been changed meanwhile stays
    }
    isLoaded_ = true;
  }

  bool setAside() const {
    const std::filesystem::path aside = std::filesystem::path(file_) += ".unreadable";
    return std::rename(file_.c_str(), aside.c_str()) == 0;
  }

  void set(std::string_view key, std::optional<Value> value) {
    const std::scoped_lock lock(lock_);
    load();
    values_.insert_or_assign(std::string(key), std::move(value));
  }

  Dictionary present() const {
    Dictionary settings;
    for (const auto& [key, value] : values_) {
      if (value) settings.set(key, *value);
    }
    return settings;
  }

  std::mutex lock_;  // held while the file is written, too: no older settings after newer ones
  std::filesystem::path file_;
  bool isLoaded_ = false;
  std::map<std::string, std::optional<Value>, std::less<>> values_;  // absent: removed
  Dictionary stored_;                                                // what the file holds
};

}  // namespace

std::shared_ptr<UserDefaults> makeFileDefaults(const std::filesystem::path& file) {
  return std::make_shared<FileDefaults>(file.empty() ? file : std::filesystem::absolute(file));
}

}  // namespace marbleway::platform
