#include <Telvane/Telvane_vers.h>

extern "C" {
const double TelvaneVersionNumber = 5.0;
const unsigned char TelvaneVersionString[] = "@(#)PROGRAM:Telvane  PROJECT:Telvane-5\n";
}
