#pragma once

#include <memory>
#include <string>
#include <vector>

#include "export.h"

namespace marbleway::platform {

/// One view of the status bar, with what is needed to find the connection type.
struct View {
  std::string className;                       ///< The name of its class.
  std::vector<View> subviews;                  ///< The views in it.
  std::string text;                            ///< Its "text", empty when it has none.
  int dataNetworkType = 0;                     ///< Its "dataNetworkType", 0 when it has none.
  std::shared_ptr<const View> statusBar;       ///< Its "statusBar", null when it has none.
  std::shared_ptr<const View> foregroundView;  ///< Its "foregroundView", null when it has none.
};

/// The device's status bar. Thread: any.
class MARBLEWAY_EXPORT StatusBar {
 public:
  virtual ~StatusBar() = default;
  /// The application's "statusBar"; null where there is none.
  virtual std::shared_ptr<const View> view() = 0;
};

}  // namespace marbleway::platform
