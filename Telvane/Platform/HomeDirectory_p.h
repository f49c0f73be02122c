// The user's home directory. Internal.
#pragma once

#include <string>

namespace telvane {
/// $HOME when it is an absolute path, else the password database's home of the effective user; empty when
/// neither names one. Never a shared directory such as /tmp.
std::string homeDirectory();
} // namespace telvane
