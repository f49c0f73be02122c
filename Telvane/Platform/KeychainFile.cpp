// The file keyring: one text file, 0600, that the user chose with TELVANE_KEYRING=file. Every change is a
// read-modify-write under an exclusive lock, written to a temporary file beside it and renamed over it, so a
// crash at any moment leaves either the old or the new file whole.
#include "HomeDirectory_p.h"
#include "KeychainBackends_p.h"

#include <Telvane/TelvaneLog.h>
#include <Telvane/TelvaneSecret.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {
constexpr std::string_view kHeader = "telvane-keyring 1";

struct Item
{
    std::string service, account, password;
};

// All items of the file, their passwords wiped when it goes.
struct Items
{
    std::vector<Item> items;
    Items() = default;
    Items(const Items &) = delete;
    ~Items()
    {
        for (auto &item : items)
            telvaneWipe(item.password);
    }
    std::vector<Item>::iterator find(const std::string &service, const std::string &account)
    {
        return std::find_if(items.begin(), items.end(),
                            [&](const Item &i) { return i.service == service && i.account == account; });
    }
};

void escapeInto(std::string &out, std::string_view field)
{
    for (const char c : field) {
        switch (c) {
        case '\\':
            out += "\\\\";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        default:
            out += c;
        }
    }
}

bool unescape(std::string_view field, std::string &out)
{
    out.clear();
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] != '\\') {
            out += field[i];
            continue;
        }
        if (++i == field.size())
            return false;
        switch (field[i]) {
        case '\\':
            out += '\\';
            break;
        case 't':
            out += '\t';
            break;
        case 'n':
            out += '\n';
            break;
        case 'r':
            out += '\r';
            break;
        default:
            return false;
        }
    }
    return true;
}

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

class FileKeychain final : public TelvaneKeychainBackend
{
public:
    explicit FileKeychain(std::string path) : path_(std::move(path)) {}
    std::string name() const override { return "file"; }

    std::optional<std::vector<TelvaneKeychainAccount>> accountsForService(const std::string &service) override
    {
        Items items;
        if (!locked(LOCK_SH, [&] { return load(items); }))
            return std::nullopt;
        return accountsOf(items.items, service);
    }

    std::optional<std::string> passwordForService(const std::string &service,
                                                  const std::string &account) override
    {
        Items items;
        if (!locked(LOCK_SH, [&] { return load(items); }))
            return std::nullopt;
        const auto it = items.find(service, account);
        if (it == items.items.end())
            return std::nullopt;
        return it->password;
    }

    bool setPassword(const std::string &password, const std::string &service,
                     const std::string &account) override
    {
        return locked(LOCK_EX, [&] {
            Items items;
            if (!load(items))
                return false;
            const auto it = items.find(service, account);
            if (it != items.items.end())
                it->password = password;
            else
                items.items.push_back({service, account, password});
            return save(items);
        });
    }

    bool deletePasswordForService(const std::string &service, const std::string &account) override
    {
        return locked(LOCK_EX, [&] {
            Items items;
            if (!load(items))
                return false;
            const auto it = items.find(service, account);
            if (it == items.items.end())
                return false;
            telvaneWipe(it->password);
            items.items.erase(it);
            return save(items);
        });
    }

private:
    std::string directory() const
    {
        const auto slash = path_.rfind('/');
        return slash == std::string::npos ? std::string(".") : path_.substr(0, slash);
    }

    bool fail(const char *what) const
    {
        telvaneLog("file keyring: %s %s: %s", what, path_.c_str(), std::strerror(errno));
        return false;
    }

    // Runs @p body while holding a lock on the keyring's lock file, so that two processes never interleave
    // a read-modify-write.
    template <typename Body> bool locked(int operation, Body body) const
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

    bool makeDirectory() const
    {
        const std::string dir = directory();
        // Create each missing level; the last one (ours) is private to the user.
        for (std::size_t pos = 1; pos != std::string::npos;) {
            pos = dir.find('/', pos + 1);
            const std::string level = dir.substr(0, pos);
            if (::mkdir(level.c_str(), pos == std::string::npos ? 0700 : 0755) != 0 && errno != EEXIST) {
                telvaneLog("file keyring: cannot create %s: %s", level.c_str(), std::strerror(errno));
                return false;
            }
        }
        return true;
    }

    // Reads the whole file. A missing file is an empty keyring; a file that others may read, that is not
    // ours, or that does not parse is refused and left exactly as it is.
    bool load(Items &items) const
    {
        FileDescriptor fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        if (fd.get() < 0)
            return errno == ENOENT ? true : fail("cannot open");
        struct stat st
        {
        };
        if (::fstat(fd.get(), &st) != 0)
            return fail("cannot inspect");
        if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid() || (st.st_mode & 077) != 0) {
            telvaneLog("file keyring: refusing %s: it must be a regular file of yours with mode 0600 "
                       "(it has mode %04o); fix it with chmod 600 or remove it",
                       path_.c_str(), static_cast<unsigned>(st.st_mode & 07777));
            return false;
        }
        std::string text;
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0) {
                explicit_bzero(buffer, sizeof buffer);
                telvaneWipe(text);
                return fail("cannot read");
            }
            if (n == 0)
                break;
            text.append(buffer, static_cast<std::size_t>(n));
        }
        explicit_bzero(buffer, sizeof buffer);
        const bool ok = parse(text, items);
        telvaneWipe(text);
        if (!ok)
            telvaneLog("file keyring: refusing %s: it is not a keyring file this version can read; "
                       "it was left untouched",
                       path_.c_str());
        return ok;
    }

    static bool parse(std::string_view text, Items &items)
    {
        if (text.empty())
            return true;
        std::size_t pos = 0;
        bool first = true;
        while (pos < text.size()) {
            const std::size_t end = text.find('\n', pos);
            if (end == std::string_view::npos)
                return false; // every line, the last included, ends with a line feed
            const std::string_view line = text.substr(pos, end - pos);
            pos = end + 1;
            if (first) {
                if (line != kHeader)
                    return false;
                first = false;
                continue;
            }
            const std::size_t tab1 = line.find('\t');
            const std::size_t tab2 = tab1 == std::string_view::npos ? tab1 : line.find('\t', tab1 + 1);
            if (tab2 == std::string_view::npos || line.find('\t', tab2 + 1) != std::string_view::npos)
                return false;
            Item item;
            if (!unescape(line.substr(0, tab1), item.service) ||
                !unescape(line.substr(tab1 + 1, tab2 - tab1 - 1), item.account) ||
                !unescape(line.substr(tab2 + 1), item.password)) {
                telvaneWipe(item.password);
                return false;
            }
            items.items.push_back(std::move(item));
        }
        return !first;
    }

    // A writer killed between creating its temporary file and renaming it leaves that file behind, with every
    // password in it. Under the exclusive lock no other save is under way, so any temporary there is stale.
    void removeStaleTemporaries() const
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

    bool save(const Items &items) const
    {
        removeStaleTemporaries();
        std::string text(kHeader);
        text += '\n';
        for (const auto &item : items.items) {
            escapeInto(text, item.service);
            text += '\t';
            escapeInto(text, item.account);
            text += '\t';
            escapeInto(text, item.password);
            text += '\n';
        }
        std::string temporary = path_ + ".XXXXXX";
        const int raw = ::mkostemp(temporary.data(), O_CLOEXEC); // created 0600
        if (raw < 0) {
            telvaneWipe(text);
            return fail("cannot create a temporary file beside");
        }
        FileDescriptor fd(raw);
        bool ok = true;
        for (std::size_t done = 0; ok && done < text.size();) {
            const ssize_t n = ::write(fd.get(), text.data() + done, text.size() - done);
            if (n < 0 && errno == EINTR)
                continue;
            ok = n > 0;
            done += n > 0 ? static_cast<std::size_t>(n) : 0;
        }
        telvaneWipe(text);
        ok = ok && ::fsync(fd.get()) == 0 && ::rename(temporary.c_str(), path_.c_str()) == 0;
        if (!ok) {
            const int saved = errno;
            ::unlink(temporary.c_str());
            errno = saved;
            return fail("cannot write");
        }
        FileDescriptor dir(::open(directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (dir.get() >= 0)
            ::fsync(dir.get());
        return true;
    }

    const std::string path_;
};
} // namespace

std::string defaultFileKeychainPath()
{
    const char *data = std::getenv("XDG_DATA_HOME");
    if (data && *data == '/')
        return std::string(data) + "/telvane/keyring";
    // Never a shared directory such as /tmp, where another user could create the keyring's directory first.
    const std::string home = telvane::homeDirectory();
    return home.empty() ? std::string() : home + "/.local/share/telvane/keyring";
}

std::shared_ptr<TelvaneKeychainBackend> makeFileKeychain(std::string path)
{
    if (path.empty()) {
        telvaneLog("file keyring: no home directory to keep it in (set XDG_DATA_HOME or HOME)");
        return nullptr;
    }
    return std::make_shared<FileKeychain>(std::move(path));
}
