#pragma once

#include <string>
#include <string_view>

#include "desktop/bus.h"

namespace marbleway::desktop {

/// True for an absolute URL with a scheme of letters and no control character.
bool isOpenable(std::string_view url) noexcept;

/// Opens `url` by the desktop portal, or by xdg-open where there is no portal. What the portal
/// refuses is not opened. Thread: the bus thread.
void openLink(Bus& session, const std::string& url);

}  // namespace marbleway::desktop
