#include "Marbleway/session/connection_type.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace marbleway {
namespace {

using platform::View;

constexpr std::string_view kNone = "None";
constexpr std::string_view kWifi = "Wifi";
// What the modern bar's text is compared with, in this order.
constexpr std::array<std::string_view, 4> kCellular = {"2G", "3G", "4G", "LTE"};
// The meaning of the older bar's number, from 1 on.
constexpr std::array<std::string_view, 5> kNumbered = {"2G", "3G", "4G", "LTE", kWifi};

std::string_view modernType(const View& foreground) {
  std::string_view type = kNone;
  bool isCellular = false;  // stays set for the rest of the scan
  for (const View& group : foreground.subviews) {
    for (const View& child : group.subviews) {
      if (child.className == "_UIStatusBarWifiSignalView") {
        type = kWifi;
        break;  // of this group only
      }
      if (child.className == "_UIStatusBarCellularSignalView") isCellular = true;
      if (!isCellular || child.className != "_UIStatusBarStringView") continue;
      const auto* found = std::find(kCellular.begin(), kCellular.end(), child.text);
      if (found != kCellular.end()) type = *found;
    }
  }
  return type;
}

std::string_view olderType(const View& foreground) {
  const auto item = std::find_if(
      foreground.subviews.begin(), foreground.subviews.end(),
      [](const View& view) { return view.className == "UIStatusBarDataNetworkItemView"; });
  if (item == foreground.subviews.end()) return kNone;
  const int number = item->dataNetworkType;
  const bool isKnown = number >= 1 && number <= std::ssize(kNumbered);
  return isKnown ? kNumbered.at(static_cast<std::size_t>(number) - 1) : kNone;
}

}  // namespace

std::string_view connectionType(const View* statusBar) {
  if (statusBar == nullptr) return kNone;
  const bool isModern = statusBar->className == "UIStatusBar_Modern";
  const View* bar = isModern ? statusBar->statusBar.get() : statusBar;
  if (bar == nullptr || bar->foregroundView == nullptr) return kNone;
  return isModern ? modernType(*bar->foregroundView) : olderType(*bar->foregroundView);
}

}  // namespace marbleway
