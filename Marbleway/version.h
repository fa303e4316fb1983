#pragma once

/// The library's version: major, minor, patch. The build reads it from here.
#define MARBLEWAY_VERSION "2.2.0"
