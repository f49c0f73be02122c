#include "PrivateFile_p.h"

#include <Telvane/TelvaneLog.h>
#include <Telvane/TelvaneSecret.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace telvane {
namespace {

class FileDescriptor
{
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    ~FileDescriptor()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// Private to the user who runs us, and really a file: not a link, a device or somebody else's.
bool isPrivateRegularFile(const struct stat &st)
{
    return S_ISREG(st.st_mode) && st.st_uid == ::geteuid() && (st.st_mode & 077) == 0;
}

bool writeAll(int fd, const std::string &text)
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

} // namespace

PrivateFile::PrivateFile(std::string path, std::string owner)
    : path_(std::move(path)), owner_(std::move(owner))
{}

bool PrivateFile::fail(const char *what) const
{
    telvaneLog("%s: %s %s: %s", owner_.c_str(), what, path_.c_str(), std::strerror(errno));
    return false;
}

std::string PrivateFile::directory() const
{
    const auto slash = path_.rfind('/');
    return slash == std::string::npos ? std::string(".") : path_.substr(0, slash);
}

bool PrivateFile::makeDirectory() const
{
    const std::string dir = directory();
    // Create each missing level; the last one (ours) is private to the user.
    for (std::size_t pos = 1; pos != std::string::npos;) {
        pos = dir.find('/', pos + 1);
        const std::string level = dir.substr(0, pos);
        if (::mkdir(level.c_str(), pos == std::string::npos ? 0700 : 0755) != 0 && errno != EEXIST) {
            telvaneLog("%s: cannot create %s: %s", owner_.c_str(), level.c_str(), std::strerror(errno));
            return false;
        }
    }
    return true;
}

bool PrivateFile::locked(int operation, const std::function<bool()> &body) const
{
    if (!makeDirectory())
        return false;
    FileDescriptor lock(::open((path_ + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (lock.get() < 0)
        return fail("cannot open the lock file of");
    while (::flock(lock.get(), operation) != 0)
        if (errno != EINTR)
            return fail("cannot lock");
    return body();
}

bool PrivateFile::read(std::string &text) const
{
    text.clear();
    FileDescriptor fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (fd.get() < 0)
        return errno == ENOENT ? true : fail("cannot open");
    struct stat st = {};
    if (::fstat(fd.get(), &st) != 0)
        return fail("cannot inspect");
    if (!isPrivateRegularFile(st)) {
        telvaneLog("%s: refusing %s: it must be a regular file of yours with mode 0600 "
                   "(it has mode %04o); fix it with chmod 600 or remove it",
                   owner_.c_str(), path_.c_str(), static_cast<unsigned>(st.st_mode & 07777));
        return false;
    }
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(fd.get(), buffer, sizeof buffer)) != 0) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            explicit_bzero(buffer, sizeof buffer);
            telvaneWipe(text);
            return fail("cannot read");
        }
        text.append(buffer, static_cast<std::size_t>(n));
    }
    explicit_bzero(buffer, sizeof buffer);
    return true;
}

// A writer killed between creating its temporary file and renaming it leaves that file behind, with all that
// was written in it. Under the exclusive lock no other replacement is under way, so any temporary there is
// stale.
void PrivateFile::removeStaleTemporaries() const
{
    const std::string base = path_.substr(path_.rfind('/') + 1) + ".";
    DIR *dir = ::opendir(directory().c_str());
    if (!dir)
        return;
    while (const dirent *entry = ::readdir(dir)) {
        const std::string_view name = entry->d_name;
        if (name.size() != base.size() + 6 || name.substr(0, base.size()) != base)
            continue;
        const std::string_view suffix = name.substr(base.size());
        const auto alnum = [](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) != 0;
        };
        if (std::all_of(suffix.begin(), suffix.end(), alnum))
            ::unlinkat(::dirfd(dir), entry->d_name, 0);
    }
    ::closedir(dir);
}

bool PrivateFile::replace(const std::string &text) const
{
    removeStaleTemporaries();
    std::string temporary = path_ + ".XXXXXX";
    const int raw = ::mkostemp(temporary.data(), O_CLOEXEC); // created 0600
    if (raw < 0)
        return fail("cannot create a temporary file beside");
    const FileDescriptor fd(raw);
    if (!writeAll(fd.get(), text) || ::fsync(fd.get()) != 0 ||
        ::rename(temporary.c_str(), path_.c_str()) != 0) {
        const int saved = errno;
        ::unlink(temporary.c_str());
        errno = saved;
        return fail("cannot write");
    }
    // The rename itself lasts only once the directory has reached the disk too.
    const FileDescriptor dir(::open(directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0)
        ::fsync(dir.get());
    return true;
}

} // namespace telvane
