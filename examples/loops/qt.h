#pragma once

#include <Marbleway/platform/manual_loop.h>
#include <Marbleway/platform/user_interface.h>

#include <QtWidgets>
#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>

/// The library's main loop and user interface in an application with Qt 5.15 or 6. Make it on the
/// application's thread, after the QApplication. It exists until the process ends. Copy this file.
class QtServices : public QObject,
                   public marbleway::platform::ManualLoop,
                   public marbleway::platform::UserInterface {
 public:
  /// Links of other schemes are not opened.
  explicit QtServices(QStringList schemes) : schemes_(std::move(schemes)) {
    timer_.setSingleShot(true);
    timer_.setTimerType(Qt::PreciseTimer);
    connect(&timer_, &QTimer::timeout, this, &QtServices::pump);
    connect(qApp, &QObject::destroyed, this, &QtServices::end, Qt::DirectConnection);
  }
  // These are called on any thread.
  void post(std::function<void()> task) override {
    ManualLoop::post(std::move(task));
    wake();
  }
  std::shared_ptr<marbleway::platform::Timer> repeat(std::chrono::nanoseconds period,
                                                     std::function<void()> task) override {
    auto timer = ManualLoop::repeat(period, std::move(task));
    wake();
    return timer;
  }
  void setBadgeNumber(int /*number*/) override {}  // Qt has none before 6.5
  void openURL(std::string_view url) override {
    const QUrl link(text(url));
    if (schemes_.contains(link.scheme())) post([link] { QDesktopServices::openUrl(link); });
  }
  void showAlert(std::string_view title, std::string_view message,
                 std::string_view button) override {
    post([title = text(title), message = text(message), button = text(button)] {
      auto box = std::make_unique<QMessageBox>(QMessageBox::Information, title, message);
      box->setTextFormat(Qt::PlainText);
      box->addButton(button, QMessageBox::AcceptRole);
      box->setAttribute(Qt::WA_DeleteOnClose);
      box.release()->open();  // does not wait until it is closed
    });
  }

 private:
  using milliseconds = std::chrono::milliseconds;

  static QString text(std::string_view utf8) {
    return QString::fromUtf8(utf8.data(), static_cast<int>(utf8.size()));
  }
  void wake() {
    const std::scoped_lock lock(mutex_);  // the application's end waits for it
    if (!isOver_)
      QMetaObject::invokeMethod(
          this, [this] { pump(); }, Qt::QueuedConnection);
  }
  void end() {
    const std::scoped_lock lock(mutex_);
    isOver_ = true;
  }
  void pump() {
    runDue();
    const auto due = nextDue();
    if (!due) return timer_.stop();
    const auto left = std::chrono::ceil<milliseconds>(*due - std::chrono::steady_clock::now());
    timer_.start(std::clamp(left, milliseconds(0), milliseconds(std::chrono::hours(1))));
  }

  QTimer timer_;
  const QStringList schemes_;
  std::mutex mutex_;  // guards the rest
  bool isOver_ = false;
};
