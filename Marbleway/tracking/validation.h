#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "Marbleway/platform/value.h"

namespace marbleway {

// Whole texts that match the pattern of the same name; an absent one matches none. Time grows with
// the length of the text and no faster.
bool isLinkEmail(const Text& text);
bool isAttributeEmail(const Text& text);
bool isWebAddress(const Text& text);
bool isPhoneNumber(const Text& text);
bool isAbsoluteURL(const Text& text);

/// True for a number, and for a text that is one as a whole in the user's locale, groups of
/// thousands allowed.
bool isNumber(const Value& value);

/// In front of a fork: reads the user's locale, whose lock a child could find taken.
void settleValidation() noexcept;
/// In the child of a fork: leaves the patterns to the parent, whose threads may have been at them.
void renewValidation() noexcept;

/// The first of `keys` that `dictionary` does not hold; absent when it holds all.
std::optional<std::string_view> missingKey(const Dictionary& dictionary,
                                           std::initializer_list<std::string_view> keys);

/// The text that a column gets: numbers in their shortest form, booleans as 1 and 0, arrays and
/// dictionaries as JSON; absent for null and for what JSON cannot hold.
std::optional<std::string> columnText(const Value& value);

}  // namespace marbleway
