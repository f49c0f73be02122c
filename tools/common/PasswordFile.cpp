#include "PasswordFile.h"

#include "FileReading.h"

#include <Telvane/TelvaneSecret.h>

#include <fcntl.h>
#include <sys/stat.h>

std::optional<std::string> readPasswordFile(const std::string &path, std::string *error)
{
    std::string ignored;
    std::string &why = error ? *error : ignored;
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!openReadable("the password file", path, fd, why))
        return std::nullopt;
    std::string text;
    text.reserve(4096); // one buffer that is wiped, rather than copies left behind by growing
    if (!readAll(fd.get(), text)) {
        telvaneWipe(text);
        why = systemError("the password file", path);
        return std::nullopt;
    }
    std::size_t end = std::min(text.find('\n'), text.size());
    if (end > 0 && text[end - 1] == '\r')
        --end;
    std::optional<std::string> password(std::in_place, text, 0, end);
    telvaneWipe(text);
    return password;
}

bool checkPasswordFile(const std::string &path, std::string &error, std::vector<std::string> &warnings)
{
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!openReadable("the password file", path, fd, error))
        return false;
    struct stat st
    {
    };
    if (::fstat(fd.get(), &st) == 0 && (st.st_mode & S_IROTH))
        warnings.push_back("the password file " + path + " is readable by others (chmod 600 it)");
    return true;
}
