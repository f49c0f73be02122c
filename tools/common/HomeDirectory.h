// The user's home directory, by the core's own rule (the source is compiled into this library too).
#pragma once

#include "Platform/HomeDirectory_p.h"

using telvane::homeDirectory;
