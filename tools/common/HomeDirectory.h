// The user's home directory, as the SSH library finds it.
#pragma once

#include <string>

/// $HOME when it is an absolute path (a relative one would name a directory below the working directory),
/// else the password database's home of the effective user; empty when neither names one.
std::string homeDirectory();
