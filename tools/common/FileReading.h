// Reading a whole small file through its descriptor, with messages that name what was being read.
#pragma once

#include "Platform/FileDescriptor_p.h"

#include <string>

using telvane::FileDescriptor;

/// "cannot read WHAT PATH: " and errno's words.
std::string systemError(const std::string &what, const std::string &path);

/// The whole content of @p fd appended to @p text; false (errno set) on a read error.
bool readAll(int fd, std::string &text);

/// Checks that @p fd was opened and is no directory; @p error names @p what and @p path when not.
bool openReadable(const std::string &what, const std::string &path, const FileDescriptor &fd,
                  std::string &error);
