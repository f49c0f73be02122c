// The keyring backends behind TelvaneKeychain. Internal to the library.
#pragma once

#include <Telvane/TelvaneKeychain.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

/// The accounts of @p service among @p items (each with a service and an account), in their order.
template <class Items>
std::vector<TelvaneKeychainAccount> accountsOf(const Items &items, const std::string &service)
{
    std::vector<TelvaneKeychainAccount> accounts;
    for (const auto &item : items)
        if (item.service == service)
            accounts.push_back(
                {{kTelvaneKeychainAccountKey, item.account}, {kTelvaneKeychainServiceKey, item.service}});
    return accounts;
}

/// Items of this process only, in the order they were first stored. For unit tests.
std::shared_ptr<TelvaneKeychainBackend> makeMemoryKeychain();
/// One 0600 file at @p path, written atomically; refused when corrupt or readable by others. Nullptr (and a
/// log line) for an empty path.
std::shared_ptr<TelvaneKeychainBackend> makeFileKeychain(std::string path);
/// The default path of the file keyring: $XDG_DATA_HOME/telvane/keyring (or ~/.local/share/..., the home
/// from $HOME or else the password database); empty when there is no home directory.
std::string defaultFileKeychainPath();
/// The desktop's Secret Service (GNOME Keyring, KWallet, KeePassXC) through libsecret. Each operation gives
/// up after @p limit, so a keyring that does not answer delays a login by that much at most.
std::shared_ptr<TelvaneKeychainBackend>
makeSecretServiceKeychain(std::chrono::milliseconds limit = std::chrono::seconds(5));
