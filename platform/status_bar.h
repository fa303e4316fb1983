#pragma once

#include <memory>
#include <string>
#include <vector>

namespace marbleway::platform {

/// One view of the status bar, as far as the connection can be read from it.
struct View {
  std::string className;
  std::vector<View> subviews;
  std::string text;                            // its "text", empty when it has none
  int dataNetworkType = 0;                     // its "dataNetworkType", 0 when it has none
  std::shared_ptr<const View> statusBar;       // its "statusBar", null when it has none
  std::shared_ptr<const View> foregroundView;  // its "foregroundView", null when it has none
};

/// The device's status bar. Thread: any.
class [[gnu::visibility("default")]] StatusBar {
 public:
  virtual ~StatusBar() = default;
  /// The application's "statusBar"; null where there is none.
  virtual std::shared_ptr<const View> view() = 0;
};

}  // namespace marbleway::platform
