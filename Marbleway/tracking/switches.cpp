#include "Marbleway/Marbleway.h"
#include "Marbleway/core/state.h"

using namespace marbleway;

bool Marbleway::getTrackingEnabled() noexcept { return isTrackingEnabled; }

void Marbleway::setTrackingEnabled(bool trackingEnabled) noexcept {
  isTrackingEnabled = trackingEnabled;
}

bool Marbleway::getUploadingEnabled() noexcept { return isUploadingEnabled; }

void Marbleway::setUploadingEnabled(bool uploadingEnabled) noexcept {
  isUploadingEnabled = uploadingEnabled;
}
