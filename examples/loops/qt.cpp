// The library in an application with QtWidgets, on Qt's own event loop.
#include "examples/loops/qt.h"

#include <Marbleway/platform/testing/recording_location.h>

#include <optional>
#include <thread>

#include "examples/loops/use.h"

namespace {

using namespace std::chrono_literals;
namespace platform = marbleway::platform;

/// A message as a push service delivers it, with a link into this application.
void receiveMessage() {
  Marbleway::trackPushNotification({{"aps", marbleway::Dictionary{
                                                {"mrbw_data", true},
                                                {"mrbw_messageID", "message-12"},
                                                {"mrbw_messageAction", "LaunchDeepLink"},
                                                {"mrbw_messageLink", "shop://tip?notebooks"},
                                            }}});
}

/// What a location service reports, on a thread of its own.
void arrive() {
  std::thread([] {
    platform::testing::RecordingManager manager(false);
    Marbleway::didEnterRegion(manager, {"Harbor Office"});
  }).join();
}

/// The application's own pages, which links of its scheme name.
class Pages : public QTextBrowser {
 public:
  Pages() { QDesktopServices::setUrlHandler("shop", this, "setSource"); }
  ~Pages() override { QDesktopServices::unsetUrlHandler("shop"); }
  QVariant loadResource(int /*type*/, const QUrl& page) override {
    return QString("Page of " + page.query().toHtmlEscaped());
  }
};

class Window : public QWidget {
 public:
  Window() {
    setWindowTitle("Shop");
    addButton("Buy a notebook", [] { Marbleway::trackEvent("Purchase", {{"Value", 12.5}}); });
    addButton("Receive a message", receiveMessage);
    addButton("Arrive at the office", arrive);
    layout_.addWidget(&pages_);
  }

  QString page() const { return pages_.toPlainText(); }
  void pressAll() {
    for (QPushButton* const button : findChildren<QPushButton*>()) button->click();
  }

 private:
  template <class Action>
  void addButton(const char* text, Action action) {
    auto button = std::make_unique<QPushButton>(text);
    connect(button.get(), &QPushButton::clicked, this, action);
    layout_.addWidget(button.release());  // the window owns it
  }

  QVBoxLayout layout_{this};
  Pages pages_;
};

/// The text of the alert that is shown, which is then closed. Empty without one.
QString closeAlert() {
  for (QWidget* const widget : QApplication::topLevelWidgets()) {
    auto* const box = qobject_cast<QMessageBox*>(widget);
    if (box == nullptr || !box->isVisible()) continue;
    QString text = box->windowTitle() + ": " + box->text();
    box->buttons().front()->click();
    return text;
  }
  return {};
}

}  // namespace

int main(int count, char** words) {
  QApplication application(count, words);
  QApplication::setQuitOnLastWindowClosed(false);  // the upload comes first
  const auto services = std::make_shared<QtServices>(QStringList{"https", "shop"});
  platform::install({.userInterface = services});
  const bool isOnce = example::begin(services, count, words);

  Window window;
  window.show();
  std::optional<example::Ending> ending;
  const auto end = [&] {
    if (ending) return;
    ending.emplace();
    services->repeat(20ms, [&] {
      if (ending->isOver()) QApplication::exit(ending->status());
    });
  };
  QObject::connect(&application, &QApplication::lastWindowClosed, end);
  if (!isOnce) return QApplication::exec();

  // By itself: presses every button, expects a page and an alert, and ends.
  window.pressAll();
  services->repeat(20ms, [&] {
    if (window.page() != "Page of notebooks") return;
    if (closeAlert() == "Entered Region: Harbor Office") window.close();
  });
  return QApplication::exec();
}
