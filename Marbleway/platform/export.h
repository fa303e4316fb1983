#pragma once

/// @file
/// Marks what the shared library shows; everything else in it is hidden.

#define MARBLEWAY_EXPORT __attribute__((visibility("default")))
