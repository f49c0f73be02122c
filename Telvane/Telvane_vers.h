#pragma once

#include <Telvane/TelvaneExport.h>

extern "C" {
/// The library's version as MAJOR.MINOR (5.0); TelvaneVersion.h has the whole of it.
TELVANE_EXPORT extern const double TelvaneVersionNumber;
/// The what(1) string of the library.
TELVANE_EXPORT extern const unsigned char TelvaneVersionString[];
}
