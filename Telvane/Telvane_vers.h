#pragma once

#include <Telvane/TelvaneExport.h>

extern "C" {
/// The library's version, 5.0.
TELVANE_EXPORT extern const double TelvaneVersionNumber;
/// The what(1) string of the library.
TELVANE_EXPORT extern const unsigned char TelvaneVersionString[];
}
