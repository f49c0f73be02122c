// Memory that held a secret is cleared before it is given back.
#pragma once

#include <Telvane/TelvaneExport.h>

#include <string>

/// Overwrites the characters of @p secret, the spare capacity included, then empties it.
TELVANE_EXPORT void telvaneWipe(std::string &secret) noexcept;
