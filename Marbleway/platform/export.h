#pragma once

/// Exports a class or a function from the shared library; everything else in it is hidden.
#define MARBLEWAY_EXPORT __attribute__((visibility("default")))
