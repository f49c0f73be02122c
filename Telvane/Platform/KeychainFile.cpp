// The file keyring: one text file, 0600, that the user chose with TELVANE_KEYRING=file. Every change is a
// read-modify-write under an exclusive lock, and the file is replaced whole (PrivateFile), so a crash at any
// moment leaves either the old or the new keyring.
#include "HomeDirectory_p.h"
#include "KeychainBackends_p.h"
#include "PrivateFile_p.h"

#include <Telvane/TelvaneLog.h>
#include <Telvane/TelvaneSecret.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <sys/file.h>
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

// The keyring's text: a header line, then one line per item with its three fields escaped and separated by
// tabs. Every line, the last included, ends with a line feed.
bool parse(std::string_view text, Items &items)
{
    if (text.empty())
        return true;
    std::size_t pos = 0;
    bool first = true;
    while (pos < text.size()) {
        const std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos)
            return false;
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

std::string keyringText(const Items &items)
{
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
    return text;
}

class FileKeychain : public TelvaneKeychainBackend
{
public:
    explicit FileKeychain(std::string path) : file_(std::move(path), "file keyring") {}
    std::string name() const override { return "file"; }

    std::optional<std::vector<TelvaneKeychainAccount>>
    accountsForService(const std::string &service) override;
    std::optional<std::string> passwordForService(const std::string &service,
                                                  const std::string &account) override;
    bool setPassword(const std::string &password, const std::string &service,
                     const std::string &account) override;
    bool deletePasswordForService(const std::string &service, const std::string &account) override;

private:
    bool load(Items &items) const;
    bool save(const Items &items) const;

    const telvane::PrivateFile file_;
};

std::optional<std::vector<TelvaneKeychainAccount>>
FileKeychain::accountsForService(const std::string &service)
{
    Items items;
    if (!file_.locked(LOCK_SH, [&] { return load(items); }))
        return std::nullopt;
    return accountsOf(items.items, service);
}

std::optional<std::string> FileKeychain::passwordForService(const std::string &service,
                                                            const std::string &account)
{
    Items items;
    if (!file_.locked(LOCK_SH, [&] { return load(items); }))
        return std::nullopt;
    const auto it = items.find(service, account);
    if (it == items.items.end())
        return std::nullopt;
    return it->password;
}

bool FileKeychain::setPassword(const std::string &password, const std::string &service,
                               const std::string &account)
{
    return file_.locked(LOCK_EX, [&] {
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

bool FileKeychain::deletePasswordForService(const std::string &service, const std::string &account)
{
    return file_.locked(LOCK_EX, [&] {
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

// A missing file is an empty keyring; one that does not parse is refused and left exactly as it is.
bool FileKeychain::load(Items &items) const
{
    std::string text;
    if (!file_.read(text))
        return false;
    const bool ok = parse(text, items);
    telvaneWipe(text);
    if (!ok)
        telvaneLog("file keyring: refusing %s: it is not a keyring file this version can read; "
                   "it was left untouched",
                   file_.path().c_str());
    return ok;
}

bool FileKeychain::save(const Items &items) const
{
    std::string text = keyringText(items);
    const bool ok = file_.replace(text);
    telvaneWipe(text);
    return ok;
}

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
