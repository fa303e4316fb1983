#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <span>

#include "platform/value.h"

// The recording operations, as `Marbleway` documents them. They may throw. Thread: any.
namespace marbleway {

void linkUser(const Text& userIdentifier, const Text& identifierType);
void unlinkUser();
void setUserAttribute(const Text& attribute, const Text& value);
void incrementUserAttribute(const Text& attribute, const Value& value);
void decrementUserAttribute(const Text& attribute, const Value& value);

void linkCompany(const Text& companyName);
void unlinkCompany();
void setCompanyAttribute(const Text& attribute, const Text& value);
void incrementCompanyAttribute(const Text& attribute, const Value& value);
void decrementCompanyAttribute(const Text& attribute, const Value& value);

/// Without attributes `attributes` is null.
void trackEvent(const Text& eventName, const Dictionary* attributes);
void trackScreenView(const Text& screenName, const Dictionary* attributes);

void trackAdImpression(const Dictionary& adDetails);
void trackAdInteraction(const Dictionary& adDetails, const Text& interactionType);
void trackAdConversion(const Dictionary& adDetails, const Dictionary& conversionDetails);

void trackDeepLink(const Text& url);
void logError(const Text& errorName, const Text& errorMessage,
              const std::optional<ErrorReport>& exception);
/// `caller` is the address to which the application's call returns.
void logError(const Text& errorName, const Text& errorMessage, const std::exception& exception,
              const void* caller);

void setDeviceToken(const std::optional<std::span<const std::uint8_t>>& deviceToken);
void trackPushNotification(const Dictionary& userInfo);

}  // namespace marbleway
