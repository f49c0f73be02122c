#include <Telvane/TelvaneVersion.h>
#include <Telvane/Telvane_vers.h>

#define TELVANE_TEXT(x) #x
#define TELVANE_NUMBER_TEXT(x) TELVANE_TEXT(x)

extern "C" {
const double TelvaneVersionNumber = TELVANE_VERSION_MAJOR + TELVANE_VERSION_MINOR / 10.0;
const unsigned char TelvaneVersionString[] =
    "@(#)PROGRAM:Telvane  PROJECT:Telvane-" TELVANE_NUMBER_TEXT(TELVANE_VERSION_MAJOR) "\n";
}
